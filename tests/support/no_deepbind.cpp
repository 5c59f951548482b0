// OpenVINO's threads library opens another one with RTLD_DEEPBIND, at which the address sanitizer
// ends the process. Linked into test executables, this takes the flag away; elsewhere it changes
// nothing.
#include <dlfcn.h>

#ifdef __SANITIZE_ADDRESS__
extern "C" __attribute__((visibility("default"))) void* dlopen(const char* file,
                                                               int mode) noexcept {
  using Open = void* (*)(const char*, int);
  static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "dlopen"));
  return next(file, mode & ~RTLD_DEEPBIND);
}
#endif
