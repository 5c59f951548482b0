// What every backend promises through BaseNetwork, and which one CreateNetwork() builds. The
// machine is what a platform library of the tests' own says.
#include <gmock/gmock.h>
#include <velmora/plugin/network/create_network.h>

#include <cstdlib>
#include <memory>

#include "support/machine.h"
#include "support/sample_model.h"

namespace velmora::plugin::network {
namespace {

using test::SampleModel;
using test::TakeQuestions;

NetworkConfig Sample() {
  NetworkConfig config;
  config.output_names = {"prob"};
  config.dnn_prototxt_path = SampleModel::Path("digits.prototxt");
  config.dnn_caffemodel_path = SampleModel::Path("digits.caffemodel");
  config.ie_cpu_xml_path = SampleModel::Path("digits-cpu.xml");
  config.ie_cpu_bin_path = SampleModel::Path("digits-cpu.bin");
  config.tflite_model_path = SampleModel::Path("digits.tflite");
  config.batch_size = 1;
  return config;
}

std::unique_ptr<BaseNetwork> Create(const NetworkConfig& config, const std::string& platform) {
  setenv("VELMORA_TEST_PLATFORM", platform.c_str(), 1);
  test::TakeLog();
  TakeQuestions();
  return std::unique_ptr<BaseNetwork>(CreateNetwork(config));
}

/// The first letter of the backend that the factory builds, x for none: each has an error of its
/// own where there is no model, and no other backend is tried.
char Chosen(const NetworkConfig& config, const std::string& platform) {
  try {
    Create(config, platform);
    return '?';
  } catch (const cv::Exception&) {
    return 'd';
  } catch (const std::exception&) {  // the Inference Engine's
    return 'i';
  } catch (const Exception& exception) {
    return exception.message == "Network not support any framework" ? 'x'
           : exception.message == "Failed to load model"            ? 't'
                                                                    : 'i';  // built without it
  }
}

TEST(CreateNetworkTest, AsksTheMachineFirstAndTheFlagsSecond) {
  // For no flag, dnn, tflite, tflite + dnn, ie, ie + dnn, ie + tflite, all.
  const std::pair<const char*, std::string> table[] = {
      {"", "xdxdxdxd"}, {"tflite", "xdttxdtt"}, {"ie", "xdxdiiii"}, {"ie tflite", "xdttiiii"}};
  for (const auto& [platform, row] : table) {
    for (unsigned flags = 0; flags < row.size(); ++flags) {
      SCOPED_TRACE(std::string(platform) + " " + std::to_string(flags));
#ifdef __SANITIZE_THREAD__  // which does not see how the engine's threads agree
      if (row[flags] == 'i') continue;
#endif
      NetworkConfig config;
      config.enable_dnn = (flags & 1U) != 0;
      config.enable_tflite = (flags & 2U) != 0;
      config.enable_ie = (flags & 4U) != 0;
      EXPECT_EQ(row[flags], Chosen(config, platform));
      const std::string asked = TakeQuestions();
      // An IeNetwork has a question of its own.
      EXPECT_EQ(row[flags] == 'i' ? "ie" : "ie tflite", asked.substr(0, asked.find(" gpu")));
    }
  }
}

// ---- the contract ------------------------------------------------------------------------------

class NetworkContract : public testing::TestWithParam<const char*> {
 protected:
  std::unique_ptr<BaseNetwork> Network(NetworkConfig config = Sample()) const {
    config.enable_dnn = backend_ == "dnn";
    config.enable_ie = config.enable_tflite = !config.enable_dnn;
    return Create(config, config.enable_dnn ? "" : backend_);
  }

  const std::string backend_ = GetParam();
  const SampleModel sample_;
};

INSTANTIATE_TEST_SUITE_P(, NetworkContract, testing::Values(VELMORA_TEST_BACKENDS),
                         [](const auto& backend) { return std::string(backend.param); });

TEST_P(NetworkContract, GivesTheReferenceNumbersInOrderFromEveryForm) {
  NetworkConfig pair = Sample();
  pair.output_names = {"prob", "features", "prob"};
  NetworkConfig other = pair;
  other.dnn_binary_path = SampleModel::Path("digits-binary.caffemodel");
  other.dnn_prototxt_path = other.dnn_caffemodel_path = "not looked at";
  other.ie_cpu_xml_path = SampleModel::Path("digits-gpu.xml");  // its weights have 16 bits
  other.ie_cpu_bin_path = SampleModel::Path("digits-gpu.bin");
  other.batch_size = 7;  // with a rest of 6
  ASSERT_GE(sample_.images().size(), 100U);
  for (const NetworkConfig& config : {pair, other}) {
    const float tolerance = backend_ == "ie" && config.batch_size == 7 ? 2e-3F : 2e-5F;
    const std::vector<OutputMap> results = Network(config)->Forward(sample_.images());
    ASSERT_EQ(sample_.images().size(), results.size());
    for (std::size_t i = 0; i < results.size(); ++i) {
      SCOPED_TRACE(i);
      const bool one_output = backend_ == "tflite";
      ASSERT_EQ(one_output ? 1U : 2U, results[i].size());
      test::ExpectNear(sample_.Prob(i), results[i].at(one_output ? "output" : "prob"), tolerance);
      if (!one_output && i < sample_.features_known()) {
        test::ExpectNear(sample_.Features(i), results[i].at("features"), 5 * tolerance);
      }
    }
  }
}

TEST_P(NetworkContract, OneImageGivesWhatAListGivesAndAnAsynchronousPairDoesOrNothing) {
  const std::unique_ptr<BaseNetwork> network = Network();
  EXPECT_FALSE(network->ShouldExitAfterShutdown());
  EXPECT_TRUE(network->Forward(std::vector<cv::Mat>()).empty());
  const std::vector<OutputMap> results = network->Forward(sample_.images());
  EXPECT_EQ(results[7], network->Forward(sample_.images()[7]));
  for (const std::size_t i : {3U, 4U}) {
    network->ForwardAsync(sample_.images()[i]);
    EXPECT_EQ(backend_ == "tflite" ? OutputMap() : results[i], network->WaitOutput());
  }
}

TEST_P(NetworkContract, AFailureIsThrownAndLeavesTheNetworkUsable) {
  const std::unique_ptr<BaseNetwork> network = Network();
  const OutputMap good = network->Forward(sample_.images()[0]);
  const cv::Mat wide(32, 48, CV_32FC3, cv::Scalar());
  std::vector<cv::Mat> bad = {cv::Mat(), wide.rowRange(0, 10)};
  if (backend_ != "dnn") {  // which converts and copies any image
    bad.push_back(cv::Mat(32, 96, CV_8UC3, cv::Scalar()));
    bad.push_back(wide.colRange(0, 24));
  }
  for (const cv::Mat& image : bad) {
    EXPECT_ANY_THROW(network->Forward(image)) << image.size();
    EXPECT_ANY_THROW(network->Forward(std::vector{sample_.images()[1], image}));
    EXPECT_EQ(good, network->Forward(sample_.images()[0]));
  }

  NetworkConfig config = Sample();
  config.dnn_prototxt_path = config.ie_cpu_xml_path = config.tflite_model_path = "missing";
  EXPECT_ANY_THROW(Network(config));
}

}  // namespace
}  // namespace velmora::plugin::network
