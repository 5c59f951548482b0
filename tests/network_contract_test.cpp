// What every backend promises through BaseNetwork, and which one CreateNetwork() builds. The
// machine is what a platform library of the tests' own says.
#include <gmock/gmock.h>
#include <malloc.h>
#include <velmora/plugin/network/create_network.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <cstdlib>
#include <memory>

#include "support/own_namespace.h"
#include "support/platform_stand_in.h"
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
  test::TakeSyslog();
  TakeQuestions();
  return std::unique_ptr<BaseNetwork>(CreateNetwork(config));
}

/// The first letter of the backend that the factory builds, x for none. One that the library is
/// built without is known by the error of its constructor.
char Chosen(const NetworkConfig& config, const std::string& platform) {
  try {
    const std::unique_ptr<BaseNetwork> network = Create(config, platform);
    return dynamic_cast<DnnNetwork*>(network.get()) != nullptr      ? 'd'
           : dynamic_cast<IeNetwork*>(network.get()) != nullptr     ? 'i'
           : dynamic_cast<TfLiteNetwork*>(network.get()) != nullptr ? 't'
                                                                    : '?';
  } catch (const Exception& exception) {
    return exception.message == "Network not support any framework"                        ? 'x'
           : !VELMORA_HAS_INFERENCE_ENGINE && exception.message.starts_with("[IeNetwork]") ? 'i'
           : !VELMORA_HAS_TENSORFLOW_LITE && exception.message == "Failed to load model"   ? 't'
                                                                                           : '?';
  }
}

class CreateNetworkTest : public testing::Test {
 protected:
  void SetUp() override { NEED_OWN_NAMESPACE(); }
};

TEST_F(CreateNetworkTest, AsksTheMachineFirstAndTheFlagsSecond) {
  // For no flag, dnn, tflite, tflite + dnn, ie, ie + dnn, ie + tflite, all: which backend, by its
  // first letter, or x for none.
  const std::pair<const char*, std::string> table[] = {
      {"", "xdxdxdxd"}, {"tflite", "xdttxdtt"}, {"ie", "xdxdiiii"}, {"ie tflite", "xdttiiii"}};
  for (const auto& [platform, row] : table) {
    for (unsigned flags = 0; flags < row.size(); ++flags) {
      SCOPED_TRACE(std::string(platform) + " " + std::to_string(flags));
#ifdef __SANITIZE_THREAD__  // which does not see how the engine's threads agree
      if (row[flags] == 'i') continue;
#endif
      NetworkConfig config = Sample();
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

TEST_F(CreateNetworkTest, TriesNoOtherBackendWhenTheChosenOneFails) {
  NetworkConfig config = Sample();
  config.enable_dnn = config.enable_tflite = true;
  config.tflite_model_path = "missing";
  std::size_t before = 0;
  for (int i = 0; i < 1100; ++i) {
    if (i == 100) {
      before = mallinfo2().uordblks;
    }
    try {
      Create(config, "tflite");
      FAIL() << "it fell back";
    } catch (const Exception& exception) {
      ASSERT_EQ("Failed to load model", exception.message);
    }
  }
  // Ten bytes of each object that failed. Under a sanitizer both are 0, and it looks itself.
  EXPECT_LE(mallinfo2().uordblks, before + 10'000);
  EXPECT_THAT(test::TakeSyslog(), testing::Not(testing::Contains(testing::Field(
                                      &test::SyslogLine::text, testing::HasSubstr(" Init ")))));
}

// ---- the contract ------------------------------------------------------------------------------

class NetworkContract : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { NEED_OWN_NAMESPACE(); }

  std::unique_ptr<BaseNetwork> Network(NetworkConfig config = Sample()) const {
    config.enable_dnn = backend_ == "dnn";
    config.enable_ie = config.enable_tflite = !config.enable_dnn;
    return Create(config, config.enable_dnn ? "" : backend_);
  }

  /// The values of the one output.
  static std::vector<float> Only(const OutputMap& outputs) {
    EXPECT_EQ(1U, outputs.size());
    return outputs.begin()->second;
  }

  const std::string backend_ = GetParam();
  const SampleModel sample_;
};

INSTANTIATE_TEST_SUITE_P(, NetworkContract, testing::Values(VELMORA_TEST_BACKENDS),
                         [](const auto& backend) { return std::string(backend.param); });

TEST_P(NetworkContract, GivesTheReferenceNumbersInOrder) {
  const std::unique_ptr<BaseNetwork> network = Network();
  EXPECT_FALSE(network->ShouldExitAfterShutdown());
  const std::vector<OutputMap> results = network->Forward(sample_.images());
  ASSERT_EQ(sample_.images().size(), results.size());
  for (std::size_t i = 0; i < results.size(); ++i) {
    test::ExpectNear(sample_.Prob(i), Only(results[i]), 1e-4F);
  }
  EXPECT_EQ(results[7], network->Forward(sample_.images()[7]));
  EXPECT_TRUE(network->Forward(std::vector<cv::Mat>()).empty());
}

TEST_P(NetworkContract, AnAsynchronousPairGivesWhatForwardGivesOrNothing) {
  const std::unique_ptr<BaseNetwork> network = Network();
  for (const std::size_t i : {3U, 4U}) {
    network->ForwardAsync(sample_.images()[i]);
    EXPECT_EQ(backend_ == "tflite" ? OutputMap() : network->Forward(sample_.images()[i]),
              network->WaitOutput());
  }
}

TEST_P(NetworkContract, AFailureIsThrownAndLeavesTheNetworkUsable) {
  const std::unique_ptr<BaseNetwork> network = Network();
  const OutputMap good = network->Forward(sample_.images()[0]);
  const cv::Mat small = sample_.images()[0].rowRange(0, 20).clone();
  EXPECT_ANY_THROW(network->Forward(small));
  EXPECT_ANY_THROW(network->Forward(std::vector{sample_.images()[1], small}));
  EXPECT_EQ(good, network->Forward(sample_.images()[0]));

  NetworkConfig config = Sample();
  config.dnn_prototxt_path = config.ie_cpu_xml_path = config.tflite_model_path = "missing";
  EXPECT_ANY_THROW(Network(config));
}

}  // namespace
}  // namespace velmora::plugin::network
