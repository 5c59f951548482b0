// What the programs that compare the library with the same work by hand agree on with the modules
// that they load, one for each side.
#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

/// A network in the files NAME.xml and NAME.bin, or another form, and what it is to run on.
struct Task {
  std::string name;
  int width;
  int height;
  int batch = 1;
  std::string device = "CPU";  // or "GPU"
};

using Output = std::unordered_map<std::string, std::vector<float>>;

/// One loaded network with made-up images for it, which are the same on both sides.
class Side {
 public:
  virtual ~Side() = default;
  virtual void Forward() = 0;
  /// The last Forward's: of all images, one behind the other.
  virtual std::vector<float> Answers() const = 0;
};

/// Exported by each module as "Load". The caller deletes what it gives. Throws what the network
/// throws.
using LoadFunction = Side*(const Task& task);

/// Opens a library, or ends the process with the reason why that is not possible.
inline void* Open(const char* library) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::exit(1);
  }
  return handle;
}

inline LoadFunction* OpenSide(const char* module) {
  return reinterpret_cast<LoadFunction*>(dlsym(Open(module), "Load"));
}
