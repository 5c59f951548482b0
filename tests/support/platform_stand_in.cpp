#include "support/platform_stand_in.h"

#include <cstdlib>
#include <utility>

namespace velmora {

namespace {

std::string questions;

bool Answer(const std::string& engine) {
  questions += (questions.empty() ? "" : " ") + engine;
  const char* const supported = std::getenv("VELMORA_TEST_PLATFORM");
  return supported != nullptr &&
         (" " + std::string(supported) + " ").find(" " + engine + " ") != std::string::npos;
}

}  // namespace

namespace plugin::platform {
bool IsSupportedIENetwork() { return Answer("ie"); }
bool IsSupportedTFLiteNetwork() { return Answer("tflite"); }
bool IsSupportedIENetworkGpu() {
  const char* const drivers = std::getenv("OCL_ICD_VENDORS");
  const bool answer = Answer("gpu");
  questions += drivers == nullptr ? "" : " " + std::string(drivers);
  return answer;
}
}  // namespace plugin::platform

std::string test::TakeQuestions() { return std::exchange(questions, {}); }

}  // namespace velmora
