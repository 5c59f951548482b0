// A host that loads the library at run time, uses it, and unloads it, again and again.
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "support/own_namespace.h"

// In the place of the platform library's: the stand-in GPU is none that it would find.
namespace velmora::plugin::platform {
__attribute__((visibility("default"))) bool IsSupportedIENetworkGpu() { return true; }
}  // namespace velmora::plugin::platform

namespace {

// The sanitizers keep what is freed, and a library that has their code is not unloaded.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr int kWarmUp = 50;           // cycles, after which memory must not grow
constexpr int kCyclesOfOneLoad = 20;  // of the library
constexpr std::chrono::seconds kLongEnough(60);

std::size_t ResidentKilobytes() {
  malloc_trim(0);  // what is free now is not lost
  std::size_t pages = 0;
  std::ifstream statm("/proc/self/statm");
  statm >> pages >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

bool IsLoaded(const char* library) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

class Host : public testing::TestWithParam<const char*> {};

// 1,000 cycles, and fewer where an engine takes long to load: as many as fit into a minute.
// VELMORA_TEST_CYCLES is for as many as it says, however long they take.
TEST_P(Host, SlowLoadsUsesAndUnloadsNetworksInTheSameMemory) {
  NEED_OWN_NAMESPACE();
  const char* const wanted = std::getenv("VELMORA_TEST_CYCLES");
  const int cycles = wanted != nullptr ? std::atoi(wanted) : 1000;
  const auto start = std::chrono::steady_clock::now();
  const auto late = [&] {
    return wanted == nullptr && std::chrono::steady_clock::now() - start > kLongEnough;
  };
  std::size_t warm = 0;
  int done = 0;
  while (done < cycles && !late()) {
    void* const module = dlopen(VELMORA_HOST_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto* const use = reinterpret_cast<bool (*)(const char*, bool)>(dlsym(module, "UseNetwork"));
    ASSERT_NE(nullptr, use);
    for (int i = 0; i < kCyclesOfOneLoad; ++i) {
      ASSERT_TRUE(use(GetParam(), VELMORA_HAS_GPU && i % 2 == 0));
      velmora::test::TakeSyslog();
      if (++done == kWarmUp) {
        warm = ResidentKilobytes();
      }
    }
    ASSERT_EQ(0, dlclose(module));
    ASSERT_TRUE(kSanitized || !IsLoaded("libvelmora-plugin-model.so.1"));
  }
  const std::size_t in_the_end = ResidentKilobytes();
  ASSERT_GE(done, 2 * kWarmUp);
  std::cout << done << " cycles, " << done / kCyclesOfOneLoad << " loads: " << warm << " KiB after "
            << kWarmUp << ", " << in_the_end << " KiB in the end\n";
  EXPECT_TRUE(kSanitized || in_the_end < warm + warm / 20);
}

INSTANTIATE_TEST_SUITE_P(Backends, Host, testing::Values(VELMORA_TEST_BACKENDS),
                         [](const auto& tested) { return std::string(tested.param); });

}  // namespace
