// What every backend promises through BaseNetwork.
#include <gmock/gmock.h>
#include <velmora/plugin/network/create_network.h>
#include <velmora/plugin/network/dnn_network.h>

#include <cstdlib>
#include <memory>

#include "support/machine.h"
#include "support/sample_model.h"

namespace velmora::plugin::network {
namespace {

using test::SampleModel;
using testing::FloatNear;
using testing::Pointwise;

NetworkConfig Sample() {
  NetworkConfig config;
  config.enable_ie = config.enable_tflite = config.enable_dnn = true;
  config.output_names = {"prob", "features", "prob"};
  config.dnn_prototxt_path = SampleModel::Path("digits.prototxt");
  config.dnn_caffemodel_path = SampleModel::Path("digits.caffemodel");
  config.ie_cpu_xml_path = SampleModel::Path("digits-cpu.xml");
  config.ie_cpu_bin_path = SampleModel::Path("digits-cpu.bin");
  config.tflite_model_path = SampleModel::Path("digits.tflite");
  config.batch_size = 1;
  return config;
}

class BaseNetworkTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    test::NewMachine();
    setenv("VELMORA_TEST_PLATFORM", GetParam(), 1);
  }
  static std::unique_ptr<BaseNetwork> Network(const NetworkConfig& config = Sample()) {
    std::unique_ptr<BaseNetwork> network(CreateNetwork(config));
    EXPECT_EQ(std::string("dnn") == GetParam(),
              dynamic_cast<DnnNetwork*>(network.get()) != nullptr);
    return network;
  }

  const std::string backend_ = GetParam();
  const SampleModel sample_;
};

INSTANTIATE_TEST_SUITE_P(, BaseNetworkTest, testing::Values(VELMORA_TEST_BACKENDS),
                         [](const auto& backend) { return std::string(backend.param); });

TEST_P(BaseNetworkTest, GivesTheReferenceNumbersInOrderFromEveryForm) {
  NetworkConfig other = Sample();
  other.dnn_binary_path = SampleModel::Path("digits-binary.caffemodel");
  other.dnn_prototxt_path = other.dnn_caffemodel_path = "not looked at";
  other.ie_cpu_xml_path = SampleModel::Path("digits-gpu.xml");  // its weights have 16 bits
  other.ie_cpu_bin_path = SampleModel::Path("digits-gpu.bin");
  other.batch_size = 7;  // with a rest of 6
  ASSERT_GE(sample_.images.size(), 100U);
  for (const NetworkConfig& config : {Sample(), other}) {
    const float tolerance = backend_ == "ie" && config.batch_size == 7 ? 2e-3F : 2e-5F;
    const std::vector<OutputMap> results = Network(config)->Forward(sample_.images);
    ASSERT_EQ(sample_.images.size(), results.size());
    for (std::size_t i = 0; i < results.size(); ++i) {
      const bool one_output = backend_ == "tflite";
      ASSERT_EQ(one_output ? 1U : 2U, results[i].size());
      ASSERT_THAT(results[i].at(one_output ? "output" : "prob"),
                  Pointwise(FloatNear(tolerance), sample_.prob[i]));
      if (!one_output && i < sample_.features.size()) {
        ASSERT_THAT(results[i].at("features"),
                    Pointwise(FloatNear(5 * tolerance), sample_.features[i]));
      }
    }
  }
}

TEST_P(BaseNetworkTest, OneImageGivesWhatAListGivesAndAnAsynchronousPairDoesOrNothing) {
  const std::unique_ptr<BaseNetwork> network = Network();
  EXPECT_FALSE(network->ShouldExitAfterShutdown());
  EXPECT_TRUE(network->Forward(std::vector<cv::Mat>()).empty());
  const std::vector<OutputMap> results = network->Forward(sample_.images);
  EXPECT_EQ(results[7], network->Forward(sample_.images[7]));
  for (const std::size_t i : {3U, 4U}) {
    network->ForwardAsync(sample_.images[i]);
    EXPECT_EQ(backend_ == "tflite" ? OutputMap() : results[i], network->WaitOutput());
  }
}

TEST_P(BaseNetworkTest, AFailureIsThrownAndLeavesTheNetworkUsable) {
  const std::unique_ptr<BaseNetwork> network = Network();
  const OutputMap good = network->Forward(sample_.images[0]);
  const cv::Mat wide(32, 48, CV_32FC3, cv::Scalar());
  std::vector<cv::Mat> bad = {cv::Mat(), wide.rowRange(0, 10)};
  if (backend_ != "dnn") {  // which converts and copies any image
    bad.push_back(cv::Mat(32, 96, CV_8UC3, cv::Scalar()));
    bad.push_back(wide.colRange(0, 24));
  }
  for (const cv::Mat& image : bad) {
    EXPECT_ANY_THROW(network->Forward(image)) << image.size();
    EXPECT_ANY_THROW(network->Forward(std::vector{sample_.images[1], image}));
    EXPECT_EQ(good, network->Forward(sample_.images[0]));
  }

  NetworkConfig config = Sample();
  config.dnn_prototxt_path = config.ie_cpu_xml_path = config.tflite_model_path = "missing";
  EXPECT_ANY_THROW(Network(config));
}

}  // namespace
}  // namespace velmora::plugin::network
