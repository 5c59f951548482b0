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

/// A layer of the host's: passes its input on, or ones if it has none, counts its runs, and fails
/// on demand.
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
    if (fails) throw std::runtime_error("a layer of the host's");
    outputs.getMat(0).setTo(1);
    if (!inputs.empty()) inputs.getMat(0).copyTo(outputs.getMat(0));
  }
  static inline int runs = 0;
  static inline bool fails = false;
};

class DnnNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::current_path("/tmp");
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

TEST_F(DnnNetworkTest, RunsOnceForAnImageWhateverIsAskedFor) {
  // The engine fuses the layers from "conv" to "relu" where it may.
  const test::CaffeModel model = test::MakeCaffeModel(
      "layer { name: 'data' type: 'Input' top: 'data' input_param { shape { dim: [1, 1, 1, 2] } } }"
      "layer { name: 'count' type: 'TestHost' bottom: 'data' top: 'count' }"
      "layer { name: 'conv' type: 'Convolution' bottom: 'count' top: 'conv'"
      "        convolution_param { num_output: 1 kernel_size: 1 } }"
      "layer { name: 'scale' type: 'Scale' bottom: 'conv' top: 'scale'"
      "        scale_param { bias_term: true } }"
      "layer { name: 'relu' type: 'ReLU' bottom: 'scale' top: 'relu' }"
      "layer { name: 'last' type: 'Slice' bottom: 'relu' top: 'a' top: 'b'"
      "        slice_param { axis: 3 slice_point: 1 } }"
      "layer { name: 'last.1' type: 'Power' bottom: 'relu' top: 'd' power_param { scale: 10 } }",
      {{"conv", {1, 1, 1, 1}, 2, 2},
       {"conv", {1}, 1, 1},
       {"scale", {1}, 5, 5},
       {"scale", {1}, -20, -20}});
  const cv::Mat image = (cv::Mat_<float>(1, 2) << 0.5F, 4.0F);
  const struct {
    const char* name;
    std::vector<float> values;
    bool is_end;
  } layers[] = {{"last", {0}, true},        {"last.0", {0}, true},
                {"last.1", {0, 250}, true},  // of that name, before the output 1 of "last"
                {"last.01", {25}, true},    {"count", {0.5F, 4}, false},
                {"conv", {2, 9}, false},    {"scale", {-10, 25}, false},
                {"relu.0", {0, 25}, false}};
  for (unsigned asked = 0; asked < 1U << std::size(layers); ++asked) {
    OutputMap expected;
    NetworkConfig config = Pair(model.prototxt, model.weights, {});
    int runs = 0;
    for (unsigned i = 0; i < std::size(layers); ++i) {
      if ((asked >> i & 1U) == 0) continue;
      expected[layers[i].name] = layers[i].values;
      config.output_names.emplace_back(layers[i].name);
      runs = std::max(runs, layers[i].is_end ? 0 : 1);  // for what the first run does not know of
    }
    SCOPED_TRACE(testing::PrintToString(config.output_names));
    TakeSyslog();  // or the log fills up, and the library waits
    DnnNetwork network(config);
    HostLayer::runs = 0;
    for (int pass = 0; pass < 3; ++pass) {
      EXPECT_EQ(expected, network.Forward(image));
      EXPECT_EQ(++runs, HostLayer::runs);
    }
    HostLayer::fails = true;
    EXPECT_ANY_THROW(network.Forward(image));
    EXPECT_ANY_THROW(network.ForwardAsync(image));
    HostLayer::fails = false;
    network.ForwardAsync(image);
    EXPECT_EQ(expected.empty(), ErrorOf([&] { network.ForwardAsync(image); }) == "none");
    EXPECT_EQ(expected, network.WaitOutput());
  }
  for (const char* const name : {"last.2", "last.x", "last.99999999999", ".1", "", "missing"}) {
    TakeSyslog();
    DnnNetwork network(Pair(model.prototxt, model.weights, {name}));
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

/// What OpenCV makes of a pair by itself: the first outputs of its ends, or of all its layers.
OutputMap Alone(const NetworkConfig& pair, const cv::Mat& image, bool only_ends) {
  cv::dnn::Net net = cv::dnn::readNetFromCaffe(pair.dnn_prototxt_path, pair.dnn_caffemodel_path);
  net.enableFusion(false);
  net.setInput(cv::dnn::blobFromImage(image), "data");
  const auto names = only_ends ? net.getUnconnectedOutLayersNames() : net.getLayerNames();
  std::vector<cv::Mat> outputs;
  net.forward(outputs, names);
  OutputMap map;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto* const values = outputs[i].ptr<float>();
    map[names[i]] = {values,
                     values + outputs[i].total() / static_cast<unsigned>(outputs[i].size[0])};
  }
  return map;
}

TEST_F(DnnNetworkTest, RunsWhatOpenCvRunsWithItsNumbers) {
  cv::Mat image(120, 120, CV_32FC3);
  cv::RNG(7).fill(image, cv::RNG::UNIFORM, -1, 1);
  for (const auto& [type, params, shapes, bottoms, before] : kZoo) {
    std::vector<test::CaffeBlob> blobs;
    for (const auto& shape : shapes) blobs.push_back({"x", shape, 0.1F, 1});
    const test::CaffeModel model =
        test::MakeCaffeModel("input: 'data' " + before + "layer { name: 'x' type: '" + type + "' " +
                                 bottoms + " top: 'x' " + params + " }",
                             blobs);
    NetworkConfig pair = Pair(model.prototxt, model.weights, {});
    NetworkConfig binary;
    std::ofstream(binary.dnn_binary_path = "net.binary") << model.binary;
    for (const bool only_ends : {true, false}) {
      const OutputMap expected = Alone(pair, image, only_ends);
      for (NetworkConfig* config : {&pair, &binary}) {
        TakeSyslog();  // or the log fills up, and the library waits
        config->output_names.clear();
        for (const auto& output : expected) config->output_names.push_back(output.first);
        DnnNetwork network(*config);
        network.Forward(image);
        const OutputMap outputs = network.Forward(image);  // as planned for what was asked for
        for (const auto& [name, values] : expected) {
          EXPECT_LE(cv::norm(values, outputs.at(name), cv::NORM_INF), 1e-5 * cv::norm(values))
              << type << ": " << name;
        }
      }
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
}

/// Asks for "half" and "end" in turn; every form of Forward goes through this one.
class Host : public DnnNetwork {
 public:
  using DnnNetwork::DnnNetwork;
  using DnnNetwork::Forward;
  OutputMap Forward(const cv::Mat& image) override {
    config_.output_names = {config_.output_names == half_ ? "end" : "half"};
    return DnnNetwork::Forward(image);
  }
  const std::vector<std::string> half_ = {"half"};
};

TEST_F(DnnNetworkTest, EveryFormGoesThroughTheVirtualOneWithTheSettingsOfTheMoment) {
  Host network(
      Pair("input: 'data' layer { name: 'half' type: 'Power' bottom: 'data' top: 'half' }"
           "layer { name: 'end' type: 'Power' bottom: 'half' top: 'end' }",
           "", {}));
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  const std::vector<OutputMap> expected = {{{"half", {1}}}, {{"end", {3}}}};
  EXPECT_EQ(expected,
            static_cast<BaseNetwork&>(network).Forward(std::vector<cv::Mat>{one, 3 * one}));
  network.ForwardAsync(one);
  EXPECT_EQ(expected[0], network.WaitOutput());
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
  EXPECT_TRUE(TakeSyslog().empty());
  const char* const snapshot = R"(
      layer { name: "train-data" type: "Data" top: "data" top: "label" include { phase: TRAIN } }
      layer { name: "ip" type: "InnerProduct" bottom: "data" top: "ip" param { lr_mult: 1 } }
      layer { name: "loss" type: "SoftmaxWithLoss" bottom: "ip" bottom: "label" top: "loss" })";
  std::ofstream("snapshot") << test::MakeCaffeModel(snapshot, {{"ip", {2, 4}}}).binary;
  for (const auto& [file, reason] : {std::pair("/tmp", "not a regular file"),
                                     std::pair("snapshot", "layer \"train-data\" \\(Data\\) .*")}) {
    config.dnn_binary_path = file;
    EXPECT_EQ("[DnnNetwork] Load dnn network failed", ErrorOf([&] { DnnNetwork{config}; }));
    const std::vector<test::SyslogLine> refusal = TakeSyslog();
    ASSERT_EQ(1U, refusal.size());
    EXPECT_THAT(refusal[0].text,
                testing::MatchesRegex(path + "Refused " + config.dnn_binary_path + ": " + reason));
  }
}

}  // namespace
}  // namespace velmora::plugin::network
