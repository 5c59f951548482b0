// A host that loads the library at run time, uses it, and unloads it.
#include <dlfcn.h>
#include <unistd.h>

#include <fstream>

#include "support/own_namespace.h"

// In the place of the platform library's: the stand-in GPU is none that it would find.
namespace velmora::plugin::platform {
__attribute__((visibility("default"))) bool IsSupportedIENetworkGpu() { return true; }
}  // namespace velmora::plugin::platform

namespace {

std::size_t ResidentKilobytes() {
  std::size_t pages = 0;
  std::ifstream statm("/proc/self/statm");
  statm >> pages >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

TEST(IeHostTest, LoadsUsesAndUnloadsAHundredNetworksOnBothDevices) {
  NEED_OWN_NAMESPACE();
  std::size_t after_ten = 0;
  for (int load = 0; load < 5; ++load) {
    void* const module = dlopen(VELMORA_HOST_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto* const use = reinterpret_cast<bool (*)(bool)>(dlsym(module, "UseNetwork"));
    ASSERT_NE(nullptr, use);
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(use(i % 2 == 0));
      velmora::test::TakeSyslog();
      if (load == 0 && i == 9) {
        after_ten = ResidentKilobytes();
      }
    }
    ASSERT_EQ(0, dlclose(module));
  }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
  EXPECT_LT(ResidentKilobytes(), after_ten + after_ten / 20);
#endif
  RecordProperty("kilobytes_after_ten", static_cast<int>(after_ten));
  RecordProperty("kilobytes_after_hundred", static_cast<int>(ResidentKilobytes()));
}

}  // namespace
