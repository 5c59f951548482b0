// A host that loads the library at run time, uses it, and unloads it, again and again.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "support/hostile.h"
#include "support/machine.h"

namespace {

// The sanitizers keep what is freed, and a library that has their code is not unloaded.
using velmora::test::kSanitized;

constexpr int kWarmUp = 50;           // cycles, after which memory must not grow
constexpr int kCyclesOfOneLoad = 20;  // of the library
constexpr int kCycles = 1000;
constexpr std::chrono::seconds kLongEnough(60);  // for the sanitizers, which take their time

std::size_t ResidentKilobytes() {
  malloc_trim(0);  // what is free now is not lost
  std::size_t pages = 0;
  std::ifstream statm("/proc/self/statm");
  statm >> pages >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

class Host : public testing::TestWithParam<const char*> {};

TEST_P(Host, SlowLoadsUsesAndUnloadsNetworksInTheSameMemory) {
  velmora::test::NewMachine();
  const std::string backend = GetParam();
  const auto start = std::chrono::steady_clock::now();
  std::size_t warm = 0;
  int done = 0;
  while (done < kCycles &&
         !(kSanitized && std::chrono::steady_clock::now() - start > kLongEnough)) {
    void* const module = dlopen(VELMORA_HOST_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto* const use = reinterpret_cast<bool (*)(bool)>(dlsym(module, "UseNetwork"));
    ASSERT_NE(nullptr, use);
    for (int i = 0; i < kCyclesOfOneLoad; ++i) {
      const bool with_gpu = VELMORA_HAS_GPU && backend == "ie" && i % 2 == 0;
      setenv("VELMORA_TEST_PLATFORM", (backend + (with_gpu ? " gpu" : "")).c_str(), 1);
      ASSERT_TRUE(use(with_gpu));
      velmora::test::TakeLog();
      if (++done == kWarmUp) {
        warm = ResidentKilobytes();
      }
    }
    ASSERT_EQ(0, dlclose(module));
    ASSERT_TRUE(kSanitized ||
                dlopen("libvelmora-plugin-model.so.1", RTLD_NOW | RTLD_NOLOAD) == nullptr);
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
