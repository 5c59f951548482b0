// Which backend CreateNetwork() builds, on machines of all kinds.
#include <gtest/gtest.h>
#include <velmora/plugin/network/create_network.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "support/machine.h"

namespace velmora::plugin::network {
namespace {

/// The backend that is tried: each has an error of its own where there is no model, and no other
/// backend is tried then.
std::string Chosen(const NetworkConfig& config) {
  try {
    const std::unique_ptr<BaseNetwork> network(CreateNetwork(config));
    return "one without a model";
  } catch (const cv::Exception&) {
    return "dnn";
  } catch (const std::exception&) {  // the Inference Engine's
    return "ie";
  } catch (const Exception& exception) {
    return exception.message == "Network not support any framework" ? "none"
           : exception.message == "Failed to load model"            ? "tflite"
                                                                    : "ie";  // built without it
  }
}

TEST(CreateNetworkTest, AsksTheMachineFirstAndTheFlagsSecond) {
  const struct {
    const char* machine;
    const char* enabled;
    const char* chosen;
  } table[] = {
      {"", "ie tflite", "none"},
      {"", "ie tflite dnn", "dnn"},
      {"tflite", "ie dnn", "dnn"},
      {"tflite", "ie tflite dnn", "tflite"},
      {"ie", "tflite", "none"},
      {"ie", "ie tflite dnn", "ie"},
      {"ie tflite", "", "none"},
      {"ie tflite", "tflite dnn", "tflite"},
      {"ie tflite", "ie tflite dnn", "ie"},
  };
  for (const auto& [machine, enabled, chosen] : table) {
    SCOPED_TRACE(std::string(machine) + ": " + enabled);
    const std::string flags = enabled;
    const bool is_ie = chosen == std::string("ie");
#ifdef __SANITIZE_THREAD__  // which does not see how the engine's threads agree
    if (is_ie) {
      continue;
    }
#endif
    NetworkConfig config;
    config.enable_ie = flags.find("ie") != std::string::npos;
    config.enable_tflite = flags.find("tflite") != std::string::npos;
    config.enable_dnn = flags.find("dnn") != std::string::npos;
    setenv("VELMORA_TEST_PLATFORM", machine, 1);
    test::TakeQuestions();
    EXPECT_EQ(chosen, Chosen(config));
    const std::string asked = test::TakeQuestions();
    // An IeNetwork has a question of its own.
    EXPECT_EQ(is_ie ? "ie" : "ie tflite", asked.substr(0, asked.find(" gpu")));
  }
}

}  // namespace
}  // namespace velmora::plugin::network
