#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <filesystem>
#include <fstream>
#include <string_view>

#include "by_hand_tflite.h"
#include "support/hostile.h"
#include "support/network.h"
#include "support/own_namespace.h"
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
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::current_path("/tmp");
  }

  static NetworkConfig Write(const std::string& bytes) {
    std::ofstream("model.tflite", std::ios::binary) << bytes;
    return File("model.tflite");
  }

  static NetworkConfig File(const std::string& path) {
    Log();  // or it fills up, and the library waits
    NetworkConfig config;
    config.tflite_model_path = path;
    config.output_names = {"not looked at"};
    return config;
  }

  /// The lines that were written, without their places in the source.
  static std::string Log() {
    std::string log;
    for (const test::SyslogLine& line : test::TakeSyslog()) {
      EXPECT_TRUE(line.priority == 142 && line.text.find('\n') == std::string::npos) << line.text;
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
  Write(Double({1, 1, 1, 5}, {1, 5}));
  testing::internal::CaptureStderr();  // where the engine announces the first use of XNNPACK
  TfLiteNetwork(File("link")).WaitOutput();
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ("", VELMORA_TENSORFLOW_LITE_IS_BRIDGE ? printed : "");
  EXPECT_EQ("[TfLiteNetwork] Init network\n", Log());
}

using Conv = format::Conv2DOptionsT;
using Depthwise = format::DepthwiseConv2DOptionsT;
using Pool = format::Pool2DOptionsT;
using Deconv = format::TransposeConvOptionsT;
using test::Options;
constexpr auto kSame = format::Padding::SAME;
constexpr auto kValid = format::Padding::VALID;

const struct Specimen {
  Op code;                          // over a row of floats
  int width;                        // of the row
  std::vector<std::int64_t> sizes;  // the values of a constant
  Type type = Type::INT32;          // of that constant
  const char* log = "";             // why the library refuses what the engine would not survive
  const char* error = *log == '\0' ? "none" : kRefused;
  format::BuiltinOptionsUnion options = {};
} kOperators[] = {
    {Op::RESHAPE, 1, {}},  // to a scalar: a constant of no elements
    {Op::RESHAPE, 4, {5}, Type::INT32, "(RESHAPE) failed to prepare", "Failed to allocate tensors"},
    {Op::GATHER, 4, {9}, Type::INT32, "(GATHER) failed to invoke", "Failed to invoke interpreter"},
    {Op(250), 4, {}, Type::INT32, "Registration failed", "Failed to build interpreter"},
    {Op::SUM, 4, {}},  // over no axis
    {Op::PAD, 4, {0, 0, 1, 1, 40000, 0, 0, 0}},
    {Op::PAD, 4, {0, 0, 1, 1, 40000, 0, 0, 0}, Type::INT64},
    {Op::PAD, 4, {0, 0, 0, 0, 1, INT32_MAX, 0, 0}, Type::INT32, "1 x 1 x 2147483652 x 1 has more"},
    {Op::MIRROR_PAD, 4, {0, 0, 0, 0, 3, 3, 0, 0}},
    {Op::MIRROR_PAD, 4, {0, 0, 0, 0, -3, 3, 0, 0}},
    {Op::MIRROR_PAD, 4, {0, 0, 0, 0, 4, 0, 0, 0}, Type::INT64, "an axis of 4 has no 4 to mirror"},
    {Op::TILE, 2, {1, 1, 40000, 1}, Type::INT64},
    {Op::TILE, 2, {1, 0, 40000, 1}},
    {Op::TILE, 4, {1, 1, (1 << 30) + 1, 1}, Type::INT32, "1 x 1 x 4294967300 x 1 has more than"},
    {Op::TILE, 4, {1, 1, (1L << 32) + 1, 1}, Type::INT64, "a size of 4294967297 must be 0 to"},
    {Op::BROADCAST_TO, 1, {1, 1, 40000, 1}},
    {Op::BROADCAST_TO, 1, {40000, 1, 0, 1}, Type::INT64},
    {Op::BROADCAST_TO, 1, {1, 0, 2, 1}, Type::INT32, "it repeats an axis behind one of 0"},
    {Op::RESIZE_BILINEAR, 2, {1, 40000}},
    {Op::RESIZE_NEAREST_NEIGHBOR, 2, {1, 0}},
    {Op::RESIZE_NEAREST_NEIGHBOR, 2, {32768, 65536}, Type::INT32, "of 1 x 32768 x 65536 x 1 has"},
    {Op::RESIZE_BILINEAR, 0, {1, 4}, Type::INT32, "its input is empty"},
    {Op::FILL, 1, {0, 40000}, Type::INT64},
    {Op::FILL, 1, {}},
    {Op::FILL, 1, {INT32_MAX}, Type::INT32, "there is no memory for an output of 8589934588 bytes"},
    {Op::CONV_2D, 70000, {}, {}, "", "none", Options(Conv{{}, kValid, 32767, 1})},
    {Op::CONV_2D, 70000, {}, {}, "", "none", Options(Conv{{}, kValid, 1, 1, {}, 32767})},
    {Op::CONV_2D, 4, {}, {}, "must be 1 to", kRefused, Options(Conv{{}, kSame, 65536, 1})},
    {Op::DEPTHWISE_CONV_2D, 70000, {}, {}, "", "none", Options(Depthwise{{}, kValid, 32767, 1, 1})},
    {Op::DEPTHWISE_CONV_2D, 4, {}, {}, "must be", kRefused, Options(Depthwise{{}, kSame, 0, 1, 1})},
    {Op::AVERAGE_POOL_2D, 90000, {}, {}, "", "none", Options(Pool{{}, kValid, 90000, 1, 90000, 1})},
    {Op::MAX_POOL_2D, 90000, {}, {}, "", "none", Options(Pool{{}, kSame, 40000, 1, 40000, 1})},
    {Op::L2_POOL_2D, 4, {}, {}, "at least 1", kRefused, Options(Pool{{}, kSame, 1, 1, -70000, 1})},
    {Op::TRANSPOSE_CONV, 4, {1, 1, 9, 1}, {}, "", "none", Options(Deconv{{}, kValid, 2, 1})},
    {Op::TRANSPOSE_CONV, 4, {1, 1, 12, 1}, {}, "", "none", Options(Deconv{{}, kSame, 3, 1})},
    {Op::TRANSPOSE_CONV,
     4,
     {1, 1, 10, 1},
     {},
     "10 x 1",
     kRefused,
     Options(Deconv{{}, kValid, 2, 1})},
    {Op::TRANSPOSE_CONV,
     4,
     {1, 1, 13, 1},
     {},
     "13 x 1",
     kRefused,
     Options(Deconv{{}, kSame, 3, 1})},
    {Op::TRANSPOSE_CONV, 4, {1, 1, 4, 2}, {}, "4 x 2", kRefused, Options(Deconv{{}, kSame, 1, 1})},
};

std::string ModelOf(const Specimen& specimen) {
  TfLiteWriter w;
  const int row = w.Tensor({1, 1, specimen.width, 1});
  const int weights = w.Constant({1, 1, 2, 1}, {1, 2});
  const int scalar = w.Constant({}, {3});
  const Shape narrow(specimen.sizes.begin(), specimen.sizes.end());
  const bool is_wide = specimen.type == Type::INT64;
  const int count = static_cast<int>(narrow.size());
  const int sizes =
      w.Constant(count == 8 ? Shape{4, 2} : Shape{count}, is_wide ? Type::INT64 : Type::INT32,
                 is_wide ? static_cast<const void*>(specimen.sizes.data()) : narrow.data(),
                 narrow.size() * (is_wide ? 8 : 4));
  std::vector<int> inputs = {row, sizes};
  if (specimen.code == Op::FILL) {
    inputs = {sizes, scalar};
  } else if (specimen.code == Op::TRANSPOSE_CONV) {
    inputs = {sizes, weights, row, -1};
  } else if (specimen.options.AsPool2DOptions() != nullptr) {
    inputs = {row};
  } else if (specimen.options.type != format::BuiltinOptions::NONE) {
    inputs = {row, weights, w.Constant({1}, {3})};
  }
  const int made = w.Into(specimen.code == Op::TRANSPOSE_CONV ? narrow : Shape{1}, specimen.code,
                          inputs, specimen.options, specimen.code == Op::BROADCAST_TO ? 2 : 1);
  return w.Finish({row}, {w.Into({1, 1}, Op::RESHAPE, {made, w.Constant({1, -1})})});
}

TEST_F(TfLiteNetworkTest, RunsEveryOperatorThatTheEngineRuns) {
  rlimit before = {};
  getrlimit(RLIMIT_AS, &before);
  for (const Specimen& specimen : kOperators) {
    SCOPED_TRACE(format::EnumNameBuiltinOperator(specimen.code) +
                 testing::PrintToString(specimen.sizes) + specimen.log);
    const rlimit memory = {8UL << 30, before.rlim_max};
    if (!test::kSanitized) {
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

using Lrn = format::LocalResponseNormalizationOptionsT;
constexpr Op kLrn = Op::LOCAL_RESPONSE_NORMALIZATION;
constexpr const char* kNoImage = "Image does not fit the input tensor";
constexpr const char* kNoOutput = "Output tensor is not readable";

const struct {
  const char* error;
  const char* log;
  std::vector<int> inputs, outputs;
  struct Step {
    Op code;
    std::vector<int> inputs;
    int output;
    format::BuiltinOptionsUnion options = {};
  };
  std::vector<Step> steps = {};
} kGraphs[] = {
    {"none", "", {kImage}, {kImage}},
    {"none", "", {kImage, kImage, kConstant, kNone}, {kConstant, kFirst}},
    {"none", "", {kImage}, {kFirst}, {{Op::ADD, {0, kVariable}, kFirst}}},
    {"none", "", {kImage}, {kFirst}, {{Op::ABS, {0}, kVariable}, {Op::ADD, {0, 2}, kFirst}}},
    {kNoImage, "", {}, {kConstant}},
    {kNoImage, "", {kNone}, {kConstant}},
    {kNoImage, "", {kWhole}, {kConstant}},
    {kNoOutput, "", {kImage}, {}},
    {kRefused, "one of its outputs is missing", {kImage}, {kImage, kNone}},
    {kNoOutput, "", {kImage}, {kFirst}},
    {kRefused, "graph 0, its first input, tensor 1, is a constant", {kConstant}, {kImage}},
    {kRefused, "0 (ABS): it reads tensor 3, which", {kImage}, {}, {{Op::ABS, {kFirst}, kSecond}}},
    {kRefused, "(ABS): it writes tensor 1, which", {kImage}, {}, {{Op::ABS, {kImage}, kConstant}}},
    {kRefused,
     "1 (NEG): it writes tensor 3",
     {kImage},
     {},
     {{Op::ABS, {0}, kFirst}, {Op::NEG, {0}, kFirst}}},
    {kRefused, "its input 1 is missing", {kImage}, {}, {{Op::ADD, {kImage, kNone}, kFirst}}},
    {kRefused, "it has 2 of 3 inputs", {kImage}, {}, {{Op::DEPTHWISE_CONV_2D, {0, 1}, kFirst}}},
    {kRefused, "(ABS): one of its outputs is missing", {kImage}, {}, {{Op::ABS, {kImage}, kNone}}},
    {kNoOutput, "", {kImage}, {kBytes}, {{Op::QUANTIZE, {kImage}, kBytes}}},
    {kRefused, "a scale must be finite", {kImage}, {}, {{Op::QUANTIZE, {kImage}, kZero}}},
    {kRefused, "3 must be below 3", {kImage}, {}, {{Op::SCATTER_ND, {kPlaces, 0, kThree}, kFirst}}},
    {"none", "", {0}, {3}, {{Op::SPLIT, {kThree, 0}, 3, Options(format::SplitOptionsT{{}, 1})}}},
    {kRefused,
     "into 2",
     {0},
     {},
     {{Op::SPLIT, {kThree, 0}, 3, Options(format::SplitOptionsT{{}, 2})}}},
    {"none", "", {0}, {3}, {{kLrn, {0}, 3, Options(Lrn{{}, 1000000})}}},
    {kRefused, "its radius must be 0 to", {0}, {3}, {{kLrn, {0}, 3, Options(Lrn{{}, -1})}}},
    {kRefused, "run each other", {}, {}, {{Op::WHILE, {0}, 3, Options(format::WhileOptionsT{})}}},
};

TEST_F(TfLiteNetworkTest, LooksAtAGraphWhereItIsUsed) {
  for (const auto& [error, log, inputs, outputs, steps] : kGraphs) {
    SCOPED_TRACE(testing::PrintToString(inputs) + testing::PrintToString(outputs) + log);
    TfLiteWriter w;
    const Shape shape = {1, 1, 1, 4};
    w.Tensor(shape);
    w.Constant(shape, {1, 2, 3, 4});
    for (int i = kVariable; i < kPlaces; ++i) {
      w.Tensor(shape, i < kWhole ? Type::FLOAT32 : i == kWhole ? Type::INT32 : Type::INT8);
    }
    const std::int32_t places[] = {0, 1, 2, 3};
    w.Constant({4, 1}, Type::INT32, places, sizeof places);
    w.Constant({3});
    auto& tensors = w.model.subgraphs[0]->tensors;
    tensors[kVariable]->is_variable = true;
    for (const int i : {kBytes, kZero}) {
      tensors[i]->quantization = std::make_unique<format::QuantizationParametersT>();
      tensors[i]->quantization->scale = {i == kZero ? 0.0F : 0.5F};
      tensors[i]->quantization->zero_point = {0};
    }
    for (const auto& step : steps) {
      w.Run(step.code, step.inputs, {step.output}, step.options);
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

// docs/hostile-models.md says what the engine does not survive; fuzz/ looks further.
TEST_F(TfLiteNetworkTest, SurvivesHostileFiles) {
  const std::string model =
      ModelOf({Op::CONV_2D, 8, {}, {}, "", "", Options(Conv{{}, kSame, 2, 1})});
  const test::MemoryFile file;
  test::ExpectSurvival("flipped", 1000 / test::kStride, [&](int i) {
    bool loaded = false;
    const std::string error = ErrorOf([&] {
      TfLiteNetwork network(File(file.With(test::FlipOneBit(model, i))));
      loaded = true;
      network.Forward(Ramp(64, 64, 3));
    });
    return !loaded           ? test::Outcome::kRefused
           : error == "none" ? test::Outcome::kRan
                             : test::Outcome::kFailed;
  });
}

}  // namespace
}  // namespace velmora::plugin::network
