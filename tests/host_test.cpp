// A host that loads the library at run time, uses it, and unloads it, again and again.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <string>

#include "support/machine.h"

namespace {

constexpr int kCyclesOfOneLoad = 20;  // of the library
constexpr int kWarmUp = 40;           // cycles, after which memory must not grow
constexpr int kCycles = 160;

std::size_t AllocatedKilobytes() {
  const struct mallinfo2 heap = mallinfo2();
  return (heap.uordblks + heap.hblkhd) / 1024;
}

class HostTest : public testing::TestWithParam<const char*> {};

TEST_P(HostTest, LoadsUsesAndUnloadsNetworksInTheSameMemory) {
  velmora::test::NewMachine();
  const std::string backend = GetParam();
  std::size_t allocated = 0;
  for (int done = 0; done < kCycles; done += kCyclesOfOneLoad) {
    if (done == kWarmUp) {
      allocated = AllocatedKilobytes();
    }
    void* const module = dlopen(VELMORA_HOST_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto* const use = reinterpret_cast<bool (*)(bool)>(dlsym(module, "UseNetwork"));
    ASSERT_NE(nullptr, use);
    for (int i = 0; i < kCyclesOfOneLoad; ++i) {
      const bool with_gpu = VELMORA_HAS_GPU && backend == "ie" && i % 2 == 0;
      setenv("VELMORA_TEST_PLATFORM", (backend + (with_gpu ? " gpu" : "")).c_str(), 1);
      ASSERT_TRUE(use(with_gpu));
    }
    ASSERT_EQ(0, dlclose(module));
    // The sanitizers keep what is freed, and a library that has their code is not unloaded.
    ASSERT_TRUE(VELMORA_IS_SANITIZED || dlopen(VELMORA_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr);
  }
  EXPECT_TRUE(VELMORA_IS_SANITIZED || AllocatedKilobytes() < allocated + 32)
      << AllocatedKilobytes() << " KiB after " << allocated;
}

INSTANTIATE_TEST_SUITE_P(, HostTest, testing::Values(VELMORA_TEST_BACKENDS),
                         [](const auto& backend) { return std::string(backend.param); });

}  // namespace
