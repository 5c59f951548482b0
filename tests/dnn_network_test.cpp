#include <gmock/gmock.h>
#include <syslog.h>
#include <velmora/plugin/network/dnn_network.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/layer.hpp>

#include "support/caffe_writer.h"
#include "support/own_namespace.h"
#include "support/sample_model.h"

namespace velmora::plugin::network {
namespace {

using test::ExpectNear;
using test::TakeSyslog;

NetworkConfig Pair(const std::string& prototxt, const std::string& caffemodel,
                   const std::vector<std::string>& output_names) {
  NetworkConfig config;
  config.output_names = output_names;
  config.dnn_prototxt_path = prototxt;
  config.dnn_caffemodel_path = caffemodel;
  return config;
}

/// A network of layers without weights, in two files in the current folder.
NetworkConfig WithoutWeights(const std::string& layers,
                             const std::vector<std::string>& output_names,
                             const std::string& input = "data") {
  std::ofstream("net.prototxt") << "name: 'test' layer { name: '" + input +
                                       "' type: 'Input' top: '" + input + "' }" + layers;
  std::ofstream("net.caffemodel");
  return Pair("net.prototxt", "net.caffemodel", output_names);
}

const char* const kTwoLayers =
    "layer { name: 'middle' type: 'TestCount' bottom: 'data' top: 'middle' }"
    "layer { name: 'end' type: 'Power' bottom: 'middle' top: 'end' power_param { scale: 2 } }";

/// Passes its input on and counts how often it is run.
class CountLayer : public cv::dnn::Layer {
 public:
  explicit CountLayer(const cv::dnn::LayerParams& params) : Layer(params) {}
  static cv::Ptr<Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<CountLayer>(params);
  }
  void forward(cv::InputArrayOfArrays inputs, cv::OutputArrayOfArrays outputs,
               cv::OutputArrayOfArrays) override {
    ++runs;
    std::vector<cv::Mat> in;
    std::vector<cv::Mat> out;
    inputs.getMatVector(in);
    outputs.getMatVector(out);
    in[0].copyTo(out[0]);
  }
  static inline int runs = 0;
};
class DnnNetworkTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cv::dnn::LayerFactory::registerLayer("TestCount", CountLayer::create);
  }
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::current_path("/tmp");
  }
};

TEST_F(DnnNetworkTest, GivesTheReferenceNumbersFromBothForms) {
  const test::SampleModel sample;
  NetworkConfig pair =
      Pair(sample.Path("digits.prototxt"), sample.Path("digits.caffemodel"), {"features", "prob"});
  NetworkConfig binary = pair;
  binary.dnn_binary_path = sample.Path("digits-binary.caffemodel");
  binary.dnn_prototxt_path = binary.dnn_caffemodel_path = "not looked at";

  ASSERT_GE(sample.images().size(), 100U);
  for (const NetworkConfig& config : {pair, binary}) {
    SCOPED_TRACE(config.dnn_binary_path);
    DnnNetwork network(config);
    const std::vector<OutputMap> results = network.Forward(sample.images());
    ASSERT_EQ(sample.images().size(), results.size());
    for (std::size_t i = 0; i < results.size(); ++i) {
      SCOPED_TRACE(i);
      ASSERT_EQ(2U, results[i].size());
      ExpectNear(sample.Prob(i), results[i].at("prob"), 1e-5F);
      if (i < sample.features_known()) {
        ExpectNear(sample.Features(i), results[i].at("features"), 1e-4F);
      }
    }
  }
}

TEST_F(DnnNetworkTest, TakesEveryDepthAndChannelCountInPlanes) {
  DnnNetwork network(WithoutWeights(kTwoLayers, {"end"}));
  for (const int depth : {CV_8U, CV_8S, CV_16U, CV_16S, CV_32S, CV_32F, CV_64F}) {
    for (const int channels : {1, 2, 3, 4, 5}) {
      cv::Mat image(3, 2, CV_MAKETYPE(depth, channels));
      cv::randu(image, 0, 100);
      cv::Mat floats;
      image.convertTo(floats, CV_32F, 2);
      std::vector<float> expected;
      for (int c = 0; c < channels; ++c) {
        for (int pixel = 0; pixel < 6; ++pixel) {
          expected.push_back(floats.ptr<float>()[pixel * channels + c]);
        }
      }
      EXPECT_EQ(expected, network.Forward(image).at("end")) << depth << " " << channels;
    }
  }
}

TEST_F(DnnNetworkTest, RunsOnceForAnImageWhateverTheOutputs) {
  const cv::Mat image = (cv::Mat_<float>(1, 2) << 1.0F, 2.0F);
  const std::vector<std::vector<std::string>> lists = {
      {"end"}, {"middle"}, {"middle", "end"}, {"end", "middle", "end"}};
  for (const auto& output_names : lists) {
    TakeSyslog();
    DnnNetwork network(WithoutWeights(kTwoLayers, output_names));
    CountLayer::runs = 0;
    for (int pass = 1; pass <= 3; ++pass) {
      const OutputMap result = network.Forward(image * pass);
      EXPECT_EQ(pass, CountLayer::runs) << testing::PrintToString(output_names);
      for (const std::string& name : output_names) {
        const auto factor = static_cast<float>(name == "end" ? 2 * pass : pass);
        EXPECT_EQ((std::vector<float>{factor, 2 * factor}), result.at(name)) << name;
      }
    }
  }
}

TEST_F(DnnNetworkTest, ReadsEveryLayerOfAFusedChain) {
  const std::string prototxt =
      "layer { name: 'data' type: 'Input' top: 'data' input_param { shape { dim: [1, 1, 1, 2] } } }"
      "layer { name: 'conv' type: 'Convolution' bottom: 'data' top: 'conv'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }"
      "layer { name: 'norm' type: 'BatchNorm' bottom: 'conv' top: 'norm'"
      "        batch_norm_param { eps: 0 } }"
      "layer { name: 'scale' type: 'Scale' bottom: 'norm' top: 'scale'"
      "        scale_param { bias_term: true } }"
      "layer { name: 'relu' type: 'ReLU' bottom: 'scale' top: 'relu' }"
      "layer { name: 'last' type: 'Convolution' bottom: 'relu' top: 'last'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }";
  const test::CaffeModel model = test::MakeCaffeModel(prototxt, {{"conv", {1, 1, 1, 1}, 2, 2},
                                                                 {"conv", {1}, 1, 1},
                                                                 {"norm", {1}, 3, 3},
                                                                 {"norm", {1}, 4, 4},
                                                                 {"norm", {1}, 1, 1},
                                                                 {"scale", {1}, 5, 5},
                                                                 {"scale", {1}, -1, -1},
                                                                 {"last", {1, 1, 1, 1}, 10, 10},
                                                                 {"last", {1}, 0, 0}});
  std::ofstream("net.prototxt") << model.prototxt;
  std::ofstream("net.caffemodel") << model.weights;
  const cv::Mat image = (cv::Mat_<float>(1, 2) << 0.5F, 4.0F);
  const std::vector<std::pair<std::string, std::vector<float>>> expected = {{"conv", {2, 9}},
                                                                            {"norm", {-0.5F, 3}},
                                                                            {"scale", {-3.5F, 14}},
                                                                            {"relu", {0, 14}},
                                                                            {"last", {0, 140}}};

  for (unsigned asked = 1; asked < 1U << expected.size(); ++asked) {
    std::vector<std::string> output_names;
    for (unsigned i = 0; i < expected.size(); ++i) {
      if ((asked >> i & 1U) != 0) {
        output_names.push_back(expected[i].first);
      }
    }
    SCOPED_TRACE(testing::PrintToString(output_names));
    TakeSyslog();
    DnnNetwork network(Pair("net.prototxt", "net.caffemodel", output_names));
    for (int pass = 0; pass < 2; ++pass) {
      const OutputMap result = network.Forward(image);
      for (const auto& [name, values] : expected) {
        if (result.contains(name)) {
          ExpectNear(values, result.at(name), 1e-4F);
        }
      }
      EXPECT_EQ(output_names.size(), result.size());
    }
  }
}

TEST_F(DnnNetworkTest, AsynchronousPairKeepsOneResult) {
  const std::unique_ptr<BaseNetwork> network =
      std::make_unique<DnnNetwork>(WithoutWeights(kTwoLayers, {"end"}));
  EXPECT_FALSE(network->ShouldExitAfterShutdown());
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  EXPECT_TRUE(network->WaitOutput().empty());

  network->ForwardAsync(one);
  EXPECT_EQ(6.0F, network->Forward(one * 3).at("end")[0]);
  bool thrown = false;
  try {
    network->ForwardAsync(one * 5);
  } catch (const std::exception&) {
    ADD_FAILURE() << "the library's own errors are no std::exception";
  } catch (const Exception& exception) {
    thrown = true;
    EXPECT_EQ("[DnnNetwork] Please call 'WaitOutput' before next call", exception.message);
  }
  EXPECT_TRUE(thrown);
  EXPECT_EQ((OutputMap{{"end", {2.0F}}}), network->WaitOutput());
  EXPECT_TRUE(network->WaitOutput().empty());

  EXPECT_THROW(network->ForwardAsync(cv::Mat()), cv::Exception);
  EXPECT_TRUE(network->WaitOutput().empty());
  network->ForwardAsync(one * 2);
  EXPECT_EQ(4.0F, network->WaitOutput().at("end")[0]);
}

TEST_F(DnnNetworkTest, NothingIsPendingWithoutOutputs) {
  DnnNetwork network(WithoutWeights(kTwoLayers, {}));
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  network.ForwardAsync(one);
  network.ForwardAsync(one);
  EXPECT_TRUE(network.WaitOutput().empty());
  EXPECT_EQ(2U, network.Forward(std::vector<cv::Mat>{one, one}).size());
  EXPECT_TRUE(network.Forward(std::vector<cv::Mat>()).empty());
}

TEST_F(DnnNetworkTest, FailuresOfOpenCvPassThrough) {
  EXPECT_THROW(DnnNetwork(Pair("missing.prototxt", "missing.caffemodel", {})), cv::Exception);

  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  const char* const layer = "layer { name: 'end' type: 'Power' bottom: 'image' top: 'end' }";
  DnnNetwork other_input(WithoutWeights(layer, {"end"}, "image"));
  EXPECT_THROW(other_input.Forward(one), cv::Exception);

  DnnNetwork other_output(WithoutWeights(kTwoLayers, {"end", "missing"}));
  EXPECT_THROW(other_output.Forward(one), cv::Exception);
  EXPECT_THROW(other_output.Forward(std::vector<cv::Mat>{one, one}), cv::Exception);
}

TEST_F(DnnNetworkTest, LogsWithPathLineAndPriority) {
  TakeSyslog();
  const NetworkConfig config = WithoutWeights(kTwoLayers, {"end"});
  { const DnnNetwork network(config); }
  const std::vector<test::SyslogLine> lines = TakeSyslog();
  ASSERT_EQ(2U, lines.size());
  const std::string path = "src/network/dnn_network\\.cpp:[0-9]+ \\[DnnNetwork\\] ";
  EXPECT_EQ(LOG_LOCAL1 | LOG_INFO, lines[0].priority);
  EXPECT_THAT(lines[0].text, testing::MatchesRegex(path + "Init network"));
  EXPECT_EQ(LOG_LOCAL1 | LOG_DEBUG, lines[1].priority);
  EXPECT_THAT(lines[1].text, testing::MatchesRegex(path + "Release network"));

  NetworkConfig unreadable = config;
  unreadable.dnn_binary_path = "/tmp";
  try {
    const DnnNetwork network(unreadable);
    ADD_FAILURE() << "loaded a folder";
  } catch (const Exception& exception) {
    EXPECT_EQ("[DnnNetwork] Load dnn network failed", exception.message);
  }
  EXPECT_TRUE(TakeSyslog().empty());
}

}  // namespace
}  // namespace velmora::plugin::network
