// In the place of the machine's libvelmora-plugin-platform.so.1: says that the machine supports the
// engines that the environment variable VELMORA_TEST_PLATFORM names, such as "ie gpu".
#pragma once

#include <velmora-plugin-platform/platform.h>

#include <string>

namespace velmora::test {

/// What was asked since the last call, in order, with blanks between; behind "gpu" the list of
/// OpenCL drivers that was set then.
__attribute__((visibility("default"))) std::string TakeQuestions();

}  // namespace velmora::test
