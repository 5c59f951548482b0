#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <variant>

#include "by_hand_tflite.h"
#include "support/machine.h"
#include "support/network.h"
#include "support/sample_model.h"
#include "support/tflite_writer.h"

namespace velmora::plugin::network {
namespace {

namespace format = test::format;
using test::ErrorOf;
using test::Ramp;
using test::TfLiteWriter;
using Shape = TfLiteWriter::Shape;
using Op = TfLiteWriter::Operator;
using Type = TfLiteWriter::Type;

constexpr const char* kRefused = "Failed to load model";

class TfLiteNetworkTest : public testing::Test {
 protected:
  void SetUp() override { test::NewMachine(); }

  static NetworkConfig Write(const std::string& bytes) {
    std::ofstream("model.tflite", std::ios::binary) << bytes;
    return File("model.tflite");
  }

  static NetworkConfig File(const std::string& path) {
    NetworkConfig config;
    config.tflite_model_path = path;
    config.output_names = {"not looked at"};
    return config;
  }

  /// The lines that were written, without their places in the source.
  static std::string Log() {
    std::string log;
    for (const test::LogLine& line : test::TakeLog()) {
      EXPECT_EQ(142, line.priority);
      EXPECT_FALSE(line.text.find('\n') != std::string::npos || line.text.ends_with(' '))
          << line.text;
      log += line.text.substr(line.text.find(' ') + 1) + "\n";
    }
    return log;
  }

  /// The engine's own C++ API reports to standard error, the bridge to the log.
  static void ExpectReport(const char* part) {
    EXPECT_THAT(Log(), testing::HasSubstr(VELMORA_TENSORFLOW_LITE_IS_BRIDGE ? part : ""));
  }

  /// Runs a model, and compares what comes out with what the engine alone makes of it.
  static void Expect(const char* error, const char* report, const std::string& model, int width) {
    const NetworkConfig config = Write(model);
    const cv::Mat image = Ramp(1, width, 1, 1);
    EXPECT_EQ(error, ErrorOf([&] {
                const OutputMap output = TfLiteNetwork(config).Forward(image);
                EXPECT_EQ(ByHand({"model", 0, 0, 1, "CPU"}).Forward({image})[0], output);
              }));
    ExpectReport(report);
  }
};

/// Twice the input, in another shape.
std::string Double(const Shape& input_shape, const Shape& output_shape) {
  TfLiteWriter w;
  const int doubled = w.Into(input_shape, Op::MUL, {w.Tensor(input_shape), w.Constant({1}, {2})});
  const int output = w.Into(output_shape, Op::RESHAPE, {doubled, w.Constant(output_shape)});
  return w.Finish({0}, {output, doubled});
}

TEST_F(TfLiteNetworkTest, ReadsTheSecondDimensionOfTheFirstOutput) {
  struct Halving : TfLiteNetwork {  // a list goes through the form for one image
    using TfLiteNetwork::Forward;
    using TfLiteNetwork::TfLiteNetwork;
    OutputMap Forward(const cv::Mat& image) override { return TfLiteNetwork::Forward(image / 2); }
  };
  const std::pair<Shape, Shape> inputs_and_outputs[] = {
      {{1, 1, 1, 5}, {1, 5}},
      {{1, 1, 2, 3}, {1, 2, 3}},
      {{1, 1, 2, 3, 1}, {1, 6}},  // more dimensions than an image has
      {{4, 8, 8, 3}, {4, 192}},   // one image, whatever the batch dimension says
  };
  for (const auto& [input, output] : inputs_and_outputs) {
    Halving network(Write(Double(input, output)));
    const cv::Mat image = Ramp(input[1] + 1, input[2], input[3]);  // what is left over is no harm
    std::vector<float> expected(static_cast<std::size_t>(output[1]));
    std::iota(expected.begin(), expected.end(), 0.0F);
    network.ForwardAsync(cv::Mat());  // which it does not look at
    EXPECT_EQ((OutputMap{{"output", expected}}),
              network.Forward(std::vector<cv::Mat>{image * 3, image.reshape(1, 1)})[1]);
  }
}

TEST_F(TfLiteNetworkTest, TellsWhichFileIsNoModel) {
  ASSERT_EQ(0, mkfifo("fifo", 0600));
  std::filesystem::create_symlink("model.tflite", "link");
  Write("");
  const std::pair<std::string, const char*> paths_and_logs[] = {
      {"missing", "Cannot read missing"},
      {"fifo", "Cannot read fifo"},
      {"link", "Cannot read link"},
      {test::SampleModel::Path("digits-cpu.xml"), "not a valid"},
      {test::SampleModel::Path("digits.caffemodel"), "not a valid"},
  };
  for (const auto& [path, log] : paths_and_logs) {
    EXPECT_EQ(kRefused, ErrorOf([&, path = path] { TfLiteNetwork network(File(path)); }));
    ExpectReport(log);
  }
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Write(Double({1, 1, 1, 5}, {1, 5}));
  const auto open_before = open_files();
  testing::internal::CaptureStderr();  // where the engine announces the first use of XNNPACK
  TfLiteNetwork(File("link")).WaitOutput();
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ("", VELMORA_TENSORFLOW_LITE_IS_BRIDGE ? printed : "");
  EXPECT_EQ(open_before, open_files());
  EXPECT_EQ("[TfLiteNetwork] Init network\n", Log());
}

using test::Options;
constexpr auto kSame = format::Padding::SAME;
constexpr auto kValid = format::Padding::VALID;

using Int32 = std::vector<std::int32_t>;
using Int64 = std::vector<std::int64_t>;

/// What a convolution or a pooling does along the row.
struct Window {
  format::Padding padding = kSame;
  int stride = 1;
  int length = 1;  // of a pooling

  format::BuiltinOptionsUnion OptionsOf(Op code) const {
    switch (code) {
      case Op::CONV_2D:
        return Options(format::Conv2DOptionsT{{}, padding, stride, 1});
      case Op::DEPTHWISE_CONV_2D:
        return Options(format::DepthwiseConv2DOptionsT{{}, padding, stride, 1, 1});
      case Op::TRANSPOSE_CONV:
        return Options(format::TransposeConvOptionsT{{}, padding, stride, 1});
      default:
        return Options(format::Pool2DOptionsT{{}, padding, stride, 1, length, 1});
    }
  }
};

const struct Specimen {
  Op code;                                // over a row of floats
  int width;                              // of the row
  std::variant<Int32, Int64> sizes = {};  // a constant
  const char* log = "";  // why the library refuses what the engine would not survive
  const char* error = *log == '\0' ? "none" : kRefused;
  std::optional<Window> window = {};
} kOperators[] = {
    {Op::RESHAPE, 1, {}},  // to a scalar: a constant of no elements
    {Op::RESHAPE, 4, Int32{5}, "(RESHAPE) failed to prepare", "Failed to allocate tensors"},
    {Op::GATHER, 4, Int32{9}, "(GATHER) failed to invoke", "Failed to invoke interpreter"},
    {Op(250), 4, {}, "Registration failed", "Failed to build interpreter"},
    {Op::SUM, 4, {}},  // over no axis
    {Op::PAD, 4, Int32{0, 0, 1, 1, 40000, 0, 0, 0}},
    {Op::PAD, 4, Int32{0, 0, 0, 0, 1, INT32_MAX, 0, 0}, "1 x 1 x 2147483652 x 1 has more"},
    {Op::MIRROR_PAD, 4, Int32{0, 0, 0, 0, 3, 3, 0, 0}},
    {Op::MIRROR_PAD, 4, Int32{0, 0, 0, 0, -3, 3, 0, 0}},
    {Op::MIRROR_PAD, 4, Int64{0, 0, 0, 0, 4, 0, 0, 0}, "an axis of 4 has no 4 to mirror"},
    {Op::TILE, 2, Int64{1, 1, 40000, 1}},
    {Op::TILE, 2, Int32{1, 0, 40000, 1}},
    {Op::TILE, 4, Int32{1, 1, (1 << 30) + 1, 1}, "1 x 1 x 4294967300 x 1 has more than"},
    {Op::TILE, 4, Int64{1, 1, (1L << 32) + 1, 1}, "4294967297 must be 0 to 2147483647"},
    {Op::BROADCAST_TO, 1, Int32{1, 1, 40000, 1}},
    {Op::BROADCAST_TO, 1, Int64{40000, 1, 0, 1}},
    {Op::BROADCAST_TO, 1, Int32{1, 0, 2, 1}, "it repeats an axis behind one of 0"},
    {Op::RESIZE_BILINEAR, 2, Int32{1, 40000}},
    {Op::RESIZE_NEAREST_NEIGHBOR, 2, Int32{32768, 65536}, "of 1 x 32768 x 65536 x 1 has"},
    {Op::RESIZE_BILINEAR, 0, Int32{1, 4}, "its input is empty"},
    {Op::FILL, 1, {}},
    {Op::FILL, 1, Int32{INT32_MAX}, "there is no memory for an output of 8589934588 bytes"},
    {.code = Op::CONV_2D, .width = 70000, .window = Window{kValid, 32767}},
    {.code = Op::CONV_2D, .width = 4, .log = "must be 1 to", .window = Window{.stride = 65536}},
    {.code = Op::DEPTHWISE_CONV_2D, .width = 4, .log = "1 to", .window = Window{.stride = 0}},
    {.code = Op::AVERAGE_POOL_2D, .width = 90000, .window = Window{kValid, 90000, 90000}},
    {.code = Op::L2_POOL_2D, .width = 4, .log = "at least 1", .window = Window{.length = -70000}},
    // With weights of two values.
    {Op::TRANSPOSE_CONV, 4, Int32{1, 1, 9, 1}, "", "none", Window{kValid, 2}},
    {Op::TRANSPOSE_CONV, 4, Int32{1, 1, 12, 1}, "", "none", Window{kSame, 3}},
    {Op::TRANSPOSE_CONV, 4, Int32{1, 1, 10, 1}, "1 x 1 x 10 x 1", kRefused, Window{kValid, 2}},
    {Op::TRANSPOSE_CONV, 4, Int32{1, 1, 13, 1}, "1 x 1 x 13 x 1", kRefused, Window{kSame, 3}},
    {Op::TRANSPOSE_CONV, 4, Int32{1, 1, 4, 2}, "1 x 1 x 4 x 2", kRefused, Window{}},
};

std::string ModelOf(const Specimen& specimen) {
  TfLiteWriter w;
  const int row = w.Tensor({1, 1, specimen.width, 1});
  const int weights = w.Constant({1, 1, 2, 1}, {1, 2});
  const int scalar = w.Constant({}, {3});
  const int sizes = std::visit(
      [&w](const auto& values) {
        const int count = static_cast<int>(values.size());
        return w.Constant(count == 8 ? Shape{4, 2} : Shape{count}, values);
      },
      specimen.sizes);
  std::vector<int> inputs = {row, sizes};
  if (specimen.code == Op::FILL) {
    inputs = {sizes, scalar};
  } else if (specimen.code == Op::TRANSPOSE_CONV) {
    inputs = {sizes, weights, row, -1};
  } else if (specimen.code == Op::CONV_2D || specimen.code == Op::DEPTHWISE_CONV_2D) {
    inputs = {row, weights, w.Constant({1}, {3})};
  } else if (specimen.window) {
    inputs = {row};
  }
  const bool is_transposed = specimen.code == Op::TRANSPOSE_CONV;
  const int made = w.Into(
      is_transposed ? std::get<Int32>(specimen.sizes) : Shape{1}, specimen.code, inputs,
      specimen.window ? specimen.window->OptionsOf(specimen.code) : format::BuiltinOptionsUnion(),
      specimen.code == Op::BROADCAST_TO ? 2 : 1);
  return w.Finish({row}, {w.Into({1, 1}, Op::RESHAPE, {made, w.Constant({1, -1})})});
}

TEST_F(TfLiteNetworkTest, RunsEveryOperatorThatTheEngineRuns) {
  rlimit before = {};
  getrlimit(RLIMIT_AS, &before);
  for (const Specimen& specimen : kOperators) {
    SCOPED_TRACE(format::EnumNameBuiltinOperator(specimen.code) +
                 testing::PrintToString(specimen.sizes) + specimen.log);
    const rlimit memory = {8UL << 30, before.rlim_max};
    if (!VELMORA_IS_SANITIZED) {
      setrlimit(RLIMIT_AS, &memory);
    } else if (std::string_view(specimen.log).starts_with("there is no memory")) {
      continue;  // a sanitizer reserves more than that, and the row would take 8 GB
    }
    Expect(specimen.error, specimen.log, ModelOf(specimen), specimen.width);
    setrlimit(RLIMIT_AS, &before);
  }
}

// The tensors of a graph, each of 1 x 1 x 1 x 4: the image, a constant, a variable, two without
// values, whole numbers, and bytes with a scale and with one of 0; and then the places 0 to 3, and
// a size or an axis of 3.
enum { kNone = -1, kImage, kConstant, kVariable, kFirst, kSecond, kWhole, kBytes, kZero, kPlaces };
constexpr int kThree = kPlaces + 1;

constexpr const char* kNoImage = "Image does not fit the input tensor";
constexpr const char* kNoOutput = "Output tensor is not readable";

struct Operation {
  Op code;
  std::vector<int> inputs;
  int output;
  format::BuiltinOptionsUnion options = {};
};

Operation Split(int parts) {
  return {Op::SPLIT, {kThree, kImage}, kFirst, Options(format::SplitOptionsT{{}, parts})};
}

Operation Normalisation(int radius) {
  return {Op::LOCAL_RESPONSE_NORMALIZATION,
          {kImage},
          kFirst,
          Options(format::LocalResponseNormalizationOptionsT{{}, radius})};
}

const struct Graph {
  std::vector<int> inputs;
  std::vector<Operation> operations;
  std::vector<int> outputs;
  const char* log = "";  // why it is refused
  const char* error = *log == '\0' ? "none" : kRefused;
} kGraphs[] = {
    {{kImage}, {}, {kImage}},
    {{kImage, kImage, kConstant, kNone}, {}, {kConstant, kFirst}},
    {{kImage}, {{Op::ADD, {kImage, kVariable}, kFirst}}, {kFirst}},
    {{kImage}, {{Op::ABS, {kImage}, kVariable}, {Op::ADD, {kImage, kVariable}, kFirst}}, {kFirst}},
    {{}, {}, {kConstant}, "", kNoImage},
    {{kNone}, {}, {kConstant}, "", kNoImage},
    {{kWhole}, {}, {kConstant}, "", kNoImage},
    {{kImage}, {}, {}, "", kNoOutput},
    {{kImage}, {}, {kImage, kNone}, "one of its outputs is missing"},
    {{kImage}, {}, {kFirst}, "", kNoOutput},
    {{kConstant}, {}, {kImage}, "graph 0, its first input, tensor 1, is a constant"},
    {{kImage}, {{Op::ABS, {kFirst}, kSecond}}, {}, "0 (ABS): it reads tensor 3, which"},
    {{kImage}, {{Op::ABS, {kImage}, kConstant}}, {}, "(ABS): it writes tensor 1, which"},
    {{kImage},
     {{Op::ABS, {kImage}, kFirst}, {Op::NEG, {kImage}, kFirst}},
     {},
     "1 (NEG): it writes tensor 3"},
    {{kImage}, {{Op::ADD, {kImage, kNone}, kFirst}}, {}, "its input 1 is missing"},
    {{kImage}, {{Op::DEPTHWISE_CONV_2D, {kImage, kConstant}, kFirst}}, {}, "it has 2 of 3 inputs"},
    {{kImage}, {{Op::SIGN, {}, kFirst}}, {}, "it has 0 of 1 inputs"},
    {{kImage}, {{Op::SPLIT, {kThree}, kFirst}}, {}, "it has 1 of 2 inputs"},
    {{kImage}, {{Op::ASSIGN_VARIABLE, {kImage}, kFirst}}, {}, "it has 1 of 2 inputs"},
    {{kImage}, {{Op::RESHAPE, {kImage, kFirst}, kSecond}}, {}, "", kNoOutput},
    {{kImage}, {{Op::ABS, {kImage}, kNone}}, {}, "(ABS): one of its outputs is missing"},
    {{kImage}, {{Op::QUANTIZE, {kImage}, kBytes}}, {kBytes}, "", kNoOutput},
    {{kImage}, {{Op::QUANTIZE, {kImage}, kZero}}, {}, "a scale must be finite"},
    {{kImage}, {{Op::SCATTER_ND, {kPlaces, kImage, kThree}, kFirst}}, {}, "3 must be below 3"},
    {{kImage}, {Split(1)}, {kFirst}},
    {{kImage}, {Split(2)}, {}, "it splits into 2"},
    {{kImage}, {Normalisation(1000000)}, {kFirst}},
    {{kImage}, {Normalisation(-1)}, {}, "its radius must be 0 to"},
    {{kImage}, {{Op::WHILE, {kImage}, kFirst, Options(format::WhileOptionsT{})}}, {}, "each other"},
};

TEST_F(TfLiteNetworkTest, LooksAtAGraphWhereItIsUsed) {
  for (const auto& [inputs, operations, outputs, log, error] : kGraphs) {
    SCOPED_TRACE(testing::PrintToString(inputs) + testing::PrintToString(outputs) + log);
    TfLiteWriter w;
    const Shape shape = {1, 1, 1, 4};
    w.Tensor(shape);
    w.Constant(shape, {1, 2, 3, 4});
    for (int i = kVariable; i < kPlaces; ++i) {
      w.Tensor(shape, i < kWhole ? Type::FLOAT32 : i == kWhole ? Type::INT32 : Type::INT8);
    }
    w.Constant({4, 1}, Int32{0, 1, 2, 3});
    w.Constant({3});
    auto& tensors = w.model.subgraphs[0]->tensors;
    tensors[kVariable]->is_variable = true;
    for (const int i : {kBytes, kZero}) {
      tensors[i]->quantization = std::make_unique<format::QuantizationParametersT>();
      tensors[i]->quantization->scale = {i == kZero ? 0.0F : 0.5F};
      tensors[i]->quantization->zero_point = {0};
    }
    for (const auto& [code, from, to, options] : operations) {
      w.Run(code, from, {to}, options);
    }
    Expect(error, log, w.Finish(inputs, outputs), 4);
  }
}

TEST_F(TfLiteNetworkTest, RunsWithoutXnnpackWhatXnnpackDoesNotSurvive) {
  for (const bool has_state : {true, false}) {
    TfLiteWriter w;
    const Shape shape = {1, 1, 1, 4};
    const int image = w.Tensor(shape);
    const int state = w.Tensor(shape);  // or what comes to nothing, by way of another operator
    w.model.subgraphs[0]->tensors.back()->is_variable = has_state;
    const int sum = w.Into(shape, Op::ADD, {image, has_state ? state : image});
    const int output = w.Into({1, 4}, Op::RESHAPE, {sum, w.Constant({1, 4})});
    w.Run(Op::ADD, {image, image}, {state});
    if (!has_state) {
      w.Into(shape, Op::ABS, {state});
    }
    TfLiteNetwork network(Write(w.Finish({image}, {output})));
    network.Forward(Ramp(1, 4, 1));
    const std::vector<float> expected = {0, has_state ? 3.0F : 2.0F, has_state ? 6.0F : 4.0F,
                                         has_state ? 9.0F : 6.0F};
    EXPECT_EQ((OutputMap{{"output", expected}}), network.Forward(Ramp(1, 4, 1)));
  }
}

}  // namespace
}  // namespace velmora::plugin::network
