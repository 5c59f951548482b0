#include <gmock/gmock.h>
#include <syslog.h>
#include <velmora/plugin/network/dnn_network.h>

#include <fstream>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/layer.hpp>

#include "support/caffe_writer.h"
#include "support/machine.h"
#include "support/network.h"

namespace velmora::plugin::network {
namespace {

using test::ErrorOf;
using test::TakeLog;

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

/// A layer of the host's: passes its input on, or ones if it has none, and counts its runs.
class HostLayer : public cv::dnn::Layer {
 public:
  explicit HostLayer(const cv::dnn::LayerParams& params) : Layer(params) {}
  static cv::Ptr<Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<HostLayer>(params);
  }
  bool getMemoryShapes(const std::vector<cv::dnn::MatShape>& inputs, int,
                       std::vector<cv::dnn::MatShape>& outputs,
                       std::vector<cv::dnn::MatShape>&) const override {
    outputs.assign(1, inputs.empty() ? cv::dnn::MatShape{1, 3} : inputs[0]);
    return false;
  }
  void forward(cv::InputArrayOfArrays inputs, cv::OutputArrayOfArrays outputs,
               cv::OutputArrayOfArrays) override {
    ++runs;
    outputs.getMat(0).setTo(1);
    if (!inputs.empty()) {
      inputs.getMat(0).copyTo(outputs.getMat(0));
    }
  }
  static inline int runs = 0;
};

class DnnNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    test::NewMachine();
    if (!cv::dnn::LayerFactory::isLayerRegistered("TestHost")) {
      cv::dnn::LayerFactory::registerLayer("TestHost", HostLayer::create);
    }
  }
};

TEST_F(DnnNetworkTest, TakesEveryDepthAndChannelCountInPlanes) {
  DnnNetwork network(Double({"end"}));
  for (const int depth : {CV_8U, CV_8S, CV_16U, CV_16S, CV_32S, CV_32F, CV_64F}) {
    for (const int channels : {1, 2, 3, 4, 5}) {
      cv::Mat image;
      test::Ramp(3, 2, channels).convertTo(image, depth);
      EXPECT_EQ(test::Planes(6, channels, 2), network.Forward(image).at("end"))
          << depth << " " << channels;
    }
  }
}

TEST_F(DnnNetworkTest, RunsOnceForAnImageWhateverIsAskedFor) {
  // The engine fuses the layers from "conv" to "relu" where it may.
  const std::string prototxt =
      "layer { name: 'data' type: 'Input' top: 'data' input_param { shape { dim: [1, 1, 1, 2] } } }"
      "layer { name: 'count' type: 'TestHost' bottom: 'data' top: 'count' }"
      "layer { name: 'conv' type: 'Convolution' bottom: 'count' top: 'conv'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }"
      "layer { name: 'scale' type: 'Scale' bottom: 'conv' top: 'scale' }"
      "layer { name: 'shift' type: 'Shift' bottom: 'scale' top: 'shift' }"
      "layer { name: 'relu' type: 'ReLU' bottom: 'shift' top: 'relu' }"
      "layer { name: 'last' type: 'Slice' bottom: 'relu' top: 'a' top: 'b'"
      "        slice_param { axis: 3 slice_point: 1 } }"
      "layer { name: 'last.1' type: 'Power' bottom: 'relu' top: 'd' power_param { scale: 10 } }";
  const std::string weights = test::MakeCaffeModel(prototxt, {{"conv", {1, 1, 1, 1}, 2, 2},
                                                              {"conv", {1}, 1, 1},
                                                              {"scale", {1}, 5, 5},
                                                              {"shift", {1}, -20, -20}});
  const cv::Mat image = (cv::Mat_<float>(1, 2) << 0.5F, 4.0F);
  const struct Layer {
    const char* name;
    std::vector<float> values;
    bool is_end;  // which the first run computes, whatever is asked for
  } layers[] = {{"last", {0}, true},         {"last.0", {0}, true},
                {"last.1", {0, 250}, true},  // of that name, before the output 1 of "last"
                {"last.01", {25}, true},     {"count", {0.5F, 4}, false},
                {"conv", {2, 9}, false},     {"scale", {10, 45}, false},
                {"shift", {-10, 25}, false}, {"relu.0", {0, 25}, false}};
  for (const Layer& first : layers) {
    for (const Layer& second : layers) {
      SCOPED_TRACE(std::string(first.name) + " and " + second.name);
      const OutputMap expected = {{first.name, first.values}, {second.name, second.values}};
      DnnNetwork network(Pair(prototxt, weights, {first.name, second.name}));
      HostLayer::runs = 0;
      int runs = first.is_end && second.is_end ? 0 : 1;  // one more for what is new to it
      for (int pass = 0; pass < 3; ++pass) {
        EXPECT_EQ(expected, network.Forward(image));
        EXPECT_EQ(++runs, HostLayer::runs);
      }
    }
  }
  for (const char* const name : {"last.2", "last.x", "last.99999999999", ".1", "", "missing"}) {
    DnnNetwork network(Pair(prototxt, weights, {name}));
    EXPECT_THROW(network.Forward(image), cv::Exception) << name;
  }
}

// ---- the zoo -----------------------------------------------------------------------------------

/// Sound layers, at the edges of what the guard has rules for. Each is a network with an input of
/// 3 x 120 x 120, what stands before it, and the layer, which is called "x".
// clang-format off
const struct {
  const char* type;
  std::string params = "";
  std::vector<std::vector<std::int64_t>> blobs = {};
  std::string bottoms = "bottom: 'data'";
  std::string before = "";
} kZoo[] = {
    {"Convolution", "convolution_param { num_output: 3 kernel_size: 3 group: 3 }",
     {{3, 1, 3, 3}, {3}}},
    {"Convolution", "convolution_param { num_output: 1 kernel_h: 3 kernel_w: 1 stride: 50000 "
     "pad: 70000 dilation: 3 bias_term: false }", {{1, 3, 3, 1}}},
    {"ConvolutionDepthwise", "convolution_param { num_output: 3 kernel_size: 1 group: 3 }",
     {{3, 1, 1, 1}, {3}}},
    {"Deconvolution", "convolution_param { num_output: 2 kernel_size: 2 dilation: 2147483647 }",
     {{3, 2, 2, 2}, {2}}},
    {"Pooling", "pooling_param { pool: AVE kernel_h: 1 kernel_w: 40000 stride: 9 }", {},
     "bottom: 'wide'", "layer { name: 'wide' type: 'Reshape' bottom: 'data' top: 'wide' "
     "reshape_param { shape { dim: [1, 1, 1, -1] } } }"},
    {"Pooling", "pooling_param { pool: AVE global_pooling: true }"},
    {"ReLU", "embed_param { num_output: 0 }"},
    {"InnerProduct", "inner_product_param { num_output: 1 axis: -1 }", {{1, 120}, {1}}},
    {"Scale", "scale_param { axis: 3 bias_term: true }", {{120}, {120}}},
    {"Shift", "", {{3}}},
    {"BatchNorm", "", {{3}, {3}}},
    {"BatchNorm", "batch_norm_param { use_global_stats: false eps: 2 }", {{3}, {3}, {1}}, "bottom: 'p'",
     "layer { name: 'p' type: 'Power' bottom: 'data' top: 'p' }"},  // OpenCV fuses it with an MVN
    {"Dropout", "top: 'y' include { phase: TRAIN }", {}, "bottom: 'data' bottom: 'data'"},
    {"Identity"},
    {"Silence"},
    {"LRN", "lrn_param { norm_region: WITHIN_CHANNEL local_size: 3 }"},
    {"Permute", "permute_param { order: [0, 3, 1, 2] }"},
    {"Accum", "", {}, "bottom: 'data' bottom: 'data'"},
    {"CumSum", "softmax_param { axis: -1 }"},
    {"GRU", "", {{6, 2}, {6, 120}, {1, 12}, {120, 2}}, "bottom: 'flat'",
     "layer { name: 'flat' type: 'Reshape' bottom: 'data' top: 'flat' "
     "reshape_param { shape { dim: [3, 120, 120] } } }"},
    // What reads nothing.
    {"Const", "", {{1, 3}}, "", "layer { name: 'y' type: 'AbsVal' bottom: 'data' top: 'y' }"},
    {"TestHost", "", {}, "", "layer { name: 'y' type: 'AbsVal' bottom: 'data' top: 'y' }"},
};
// clang-format on

TEST_F(DnnNetworkTest, RunsWhatOpenCvRunsWithItsNumbers) {
  cv::Mat image(120, 120, CV_32FC3);
  cv::RNG(7).fill(image, cv::RNG::UNIFORM, -1, 1);
  for (const auto& [type, params, shapes, bottoms, before] : kZoo) {
    SCOPED_TRACE(type);
    std::vector<test::CaffeBlob> blobs;
    for (const auto& shape : shapes) {
      blobs.push_back({"x", shape, 0.1F, 1});
    }
    const std::string prototxt = "input: 'data' " + before + "layer { name: 'x' type: '" + type +
                                 "' " + bottoms + " top: 'x' " + params + " }";
    NetworkConfig pair = Pair(prototxt, test::MakeCaffeModel(prototxt, blobs), {});
    NetworkConfig binary;
    binary.dnn_binary_path = pair.dnn_caffemodel_path;

    cv::dnn::Net alone = cv::dnn::readNetFromCaffe("net.prototxt", "net.caffemodel");
    alone.enableFusion(false);
    alone.setInput(cv::dnn::blobFromImage(image), "data");
    for (const auto& names : {alone.getUnconnectedOutLayersNames(), alone.getLayerNames()}) {
      std::vector<cv::Mat> expected;
      alone.forward(expected, names);
      for (NetworkConfig* config : {&pair, &binary}) {
        config->output_names.assign(names.begin(), names.end());
        DnnNetwork network(*config);
        network.Forward(image);
        const OutputMap outputs = network.Forward(image);  // as planned for what was asked for
        for (std::size_t i = 0; i < names.size(); ++i) {
          const cv::Mat sample = expected[i].reshape(1, expected[i].size[0]).row(0);
          EXPECT_LE(cv::norm(sample, cv::Mat(outputs.at(names[i])).t(), cv::NORM_INF),
                    1e-5 * cv::norm(sample))
              << names[i];
        }
      }
    }
  }
}

TEST_F(DnnNetworkTest, AsynchronousPairKeepsOneResult) {
  DnnNetwork network(Double({"end"}));
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  EXPECT_THROW(network.ForwardAsync(cv::Mat()), cv::Exception);
  EXPECT_TRUE(network.WaitOutput().empty());
  network.ForwardAsync(one);
  EXPECT_EQ(6.0F, network.Forward(one * 3).at("end")[0]);
  EXPECT_THROW(network.Forward(cv::Mat()), cv::Exception);
  EXPECT_EQ("[DnnNetwork] Please call 'WaitOutput' before next call",
            ErrorOf([&] { network.ForwardAsync(one * 5); }));
  EXPECT_EQ((OutputMap{{"end", {2.0F}}}), network.WaitOutput());
  EXPECT_TRUE(network.WaitOutput().empty());

  DnnNetwork of_nothing(Double({}));
  of_nothing.ForwardAsync(one);
  of_nothing.ForwardAsync(one);  // nothing waits
  EXPECT_TRUE(of_nothing.WaitOutput().empty());
}

TEST_F(DnnNetworkTest, EveryFormGoesThroughTheVirtualOne) {
  struct Host : DnnNetwork {  // changes its settings at every call
    using DnnNetwork::DnnNetwork;
    using DnnNetwork::Forward;
    OutputMap Forward(const cv::Mat& image) override {
      const bool has_output = !config_.output_names.empty();
      config_.output_names.assign(has_output ? 0 : 1, "end");
      return DnnNetwork::Forward(image);
    }
  } network(Double({}));
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  EXPECT_EQ((std::vector<OutputMap>{{{"end", {2}}}, {}, {{"end", {6}}}}),
            network.Forward(std::vector<cv::Mat>{one, one, 3 * one}));
  network.ForwardAsync(one);
  EXPECT_EQ(OutputMap(), network.WaitOutput());
  network.ForwardAsync(one);
  EXPECT_EQ((OutputMap{{"end", {2}}}), network.WaitOutput());
}

TEST_F(DnnNetworkTest, LogsAndFailsAsItShould) {
  NetworkConfig config = Double({"end", "missing"});
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  EXPECT_THROW(DnnNetwork(config).Forward(one), cv::Exception);
  const std::vector<test::LogLine> lines = TakeLog();
  ASSERT_EQ(2U, lines.size());
  const std::string path = "src/network/dnn_network\\.cpp:[0-9]+ \\[DnnNetwork\\] ";
  EXPECT_EQ(LOG_LOCAL1 | LOG_INFO, lines[0].priority);
  EXPECT_THAT(lines[0].text, testing::MatchesRegex(path + "Init network"));
  EXPECT_EQ(LOG_LOCAL1 | LOG_DEBUG, lines[1].priority);
  EXPECT_THAT(lines[1].text, testing::MatchesRegex(path + "Release network"));

  EXPECT_THROW(DnnNetwork(Double({"end"}, "image")).Forward(one), cv::Exception);
  TakeLog();
  config.dnn_prototxt_path = "missing";
  EXPECT_THROW(DnnNetwork{config}, cv::Exception);
  EXPECT_TRUE(TakeLog().empty());
  for (const auto refused : {&NetworkConfig::dnn_prototxt_path, &NetworkConfig::dnn_binary_path}) {
    config.*refused = ".";
    EXPECT_EQ("[DnnNetwork] Load dnn network failed", ErrorOf([&] { DnnNetwork{config}; }));
    const std::vector<test::LogLine> refusal = TakeLog();
    ASSERT_EQ(1U, refusal.size());
    EXPECT_THAT(refusal[0].text, testing::MatchesRegex(path + "Refused .: not a regular file"));
  }
}

}  // namespace
}  // namespace velmora::plugin::network
