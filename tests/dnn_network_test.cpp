#include <gmock/gmock.h>
#include <syslog.h>
#include <velmora/plugin/network/dnn_network.h>

#include <filesystem>
#include <fstream>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/layer.hpp>

#include "support/caffe_writer.h"
#include "support/network.h"
#include "support/own_namespace.h"

namespace velmora::plugin::network {
namespace {

using test::ErrorOf;
using test::TakeSyslog;

/// A pair of files in the current folder.
NetworkConfig Pair(const std::string& prototxt, const std::string& weights,
                   const std::vector<std::string>& output_names) {
  std::ofstream("net.prototxt") << prototxt;
  std::ofstream("net.caffemodel") << weights;
  NetworkConfig config;
  config.output_names = output_names;
  config.dnn_prototxt_path = "net.prototxt";
  config.dnn_caffemodel_path = "net.caffemodel";
  return config;
}

/// "end" is twice the input.
NetworkConfig Double(const std::vector<std::string>& output_names,
                     const std::string& input = "data") {
  return Pair("layer { name: '" + input + "' type: 'Input' top: '" + input + "' }" +
                  "layer { name: 'end' type: 'Power' bottom: '" + input +
                  "' top: 'end' power_param { scale: 2 } }",
              "", output_names);
}

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
    inputs.getMat(0).copyTo(outputs.getMat(0));
  }
  static inline int runs = 0;
};

class DnnNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::current_path("/tmp");
  }
};

TEST_F(DnnNetworkTest, TakesEveryDepthAndChannelCountInPlanes) {
  DnnNetwork network(Double({"end"}));
  for (const int depth : {CV_8U, CV_8S, CV_16U, CV_16S, CV_32S, CV_32F, CV_64F}) {
    for (const int channels : {1, 2, 3, 4, 5}) {
      cv::Mat image;
      test::Ramp(3, 2, channels).convertTo(image, depth);
      std::vector<float> expected;
      for (int c = 0; c < channels; ++c) {
        for (int pixel = 0; pixel < 6; ++pixel) {
          expected.push_back(2 * static_cast<float>(pixel * channels + c));
        }
      }
      EXPECT_EQ(expected, network.Forward(image).at("end")) << depth << " " << channels;
    }
  }
}

TEST_F(DnnNetworkTest, EveryListOfOutputsIsRightAndTakesOneRun) {
  cv::dnn::LayerFactory::registerLayer("TestCount", CountLayer::create);
  // The engine fuses the layers from "conv" to "relu" where it may.
  const test::CaffeModel model = test::MakeCaffeModel(
      "layer { name: 'data' type: 'Input' top: 'data' input_param { shape { dim: [1, 1, 1, 2] } } }"
      "layer { name: 'count' type: 'TestCount' bottom: 'data' top: 'count' }"
      "layer { name: 'conv' type: 'Convolution' bottom: 'count' top: 'conv'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }"
      "layer { name: 'scale' type: 'Scale' bottom: 'conv' top: 'scale'"
      "        scale_param { bias_term: true } }"
      "layer { name: 'relu' type: 'ReLU' bottom: 'scale' top: 'relu' }"
      "layer { name: 'last' type: 'Convolution' bottom: 'relu' top: 'last'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }",
      {{"conv", {1, 1, 1, 1}, 2, 2},
       {"conv", {1}, 1, 1},
       {"scale", {1}, 5, 5},
       {"scale", {1}, -20, -20},
       {"last", {1, 1, 1, 1}, 10, 10},
       {"last", {1}, 0, 0}});
  const cv::Mat image = (cv::Mat_<float>(1, 2) << 0.5F, 4.0F);
  const std::pair<const char*, std::vector<float>> layers[] = {{"count", {0.5F, 4}},
                                                               {"conv", {2, 9}},
                                                               {"scale", {-10, 25}},
                                                               {"relu", {0, 25}},
                                                               {"last", {0, 250}}};
  for (unsigned asked = 1; asked < 1U << std::size(layers); ++asked) {
    OutputMap expected;
    std::vector<std::string> output_names;
    for (unsigned i = 0; i < std::size(layers); ++i) {
      if ((asked >> i & 1U) != 0) {
        expected.insert(layers[i]);
        output_names.emplace_back(layers[i].first);
      }
    }
    SCOPED_TRACE(testing::PrintToString(output_names));
    TakeSyslog();  // or the log fills up, and the library waits
    DnnNetwork network(Pair(model.prototxt, model.weights, output_names));
    CountLayer::runs = 0;
    for (int pass = 1; pass <= 3; ++pass) {
      EXPECT_EQ(expected, network.Forward(image));
      EXPECT_EQ(pass, CountLayer::runs);
    }
  }
}

TEST_F(DnnNetworkTest, AsynchronousPairKeepsOneResult) {
  DnnNetwork network(Double({"end"}));
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  network.ForwardAsync(one);
  EXPECT_EQ(6.0F, network.Forward(one * 3).at("end")[0]);
  EXPECT_EQ("[DnnNetwork] Please call 'WaitOutput' before next call",
            ErrorOf([&] { network.ForwardAsync(one * 5); }));
  EXPECT_EQ((OutputMap{{"end", {2.0F}}}), network.WaitOutput());
  EXPECT_TRUE(network.WaitOutput().empty());

  EXPECT_THROW(network.ForwardAsync(cv::Mat()), cv::Exception);
  EXPECT_TRUE(network.WaitOutput().empty());

  // A result without outputs is none that is pending.
  DnnNetwork without_outputs(Double({}));
  without_outputs.ForwardAsync(one);
  without_outputs.ForwardAsync(one);
  EXPECT_TRUE(without_outputs.WaitOutput().empty());
}

TEST_F(DnnNetworkTest, LogsAndFailsAsItShould) {
  TakeSyslog();
  NetworkConfig config = Double({"end", "missing"});
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  EXPECT_THROW(DnnNetwork(config).Forward(one), cv::Exception);
  const std::vector<test::SyslogLine> lines = TakeSyslog();
  ASSERT_EQ(2U, lines.size());
  const std::string path = "src/network/dnn_network\\.cpp:[0-9]+ \\[DnnNetwork\\] ";
  EXPECT_EQ(LOG_LOCAL1 | LOG_INFO, lines[0].priority);
  EXPECT_THAT(lines[0].text, testing::MatchesRegex(path + "Init network"));
  EXPECT_EQ(LOG_LOCAL1 | LOG_DEBUG, lines[1].priority);
  EXPECT_THAT(lines[1].text, testing::MatchesRegex(path + "Release network"));

  EXPECT_THROW(DnnNetwork(Double({"end"}, "image")).Forward(one), cv::Exception);
  TakeSyslog();
  config.dnn_prototxt_path = "missing";
  EXPECT_THROW(DnnNetwork{config}, cv::Exception);
  config.dnn_binary_path = "/tmp";
  EXPECT_EQ("[DnnNetwork] Load dnn network failed", ErrorOf([&] { DnnNetwork network(config); }));
  EXPECT_TRUE(TakeSyslog().empty());
}

}  // namespace
}  // namespace velmora::plugin::network
