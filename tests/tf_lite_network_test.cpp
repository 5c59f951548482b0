#include <gtest/gtest.h>
#include <sys/stat.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/hostile.h"
#include "support/network.h"
#include "support/own_namespace.h"
#include "support/sample_model.h"
#include "support/tflite_writer.h"

namespace velmora::plugin::network {
namespace {

using test::ErrorOf;
using test::Ramp;
using test::TfLiteWriter;
using Shape = std::vector<std::int32_t>;

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
    test::TakeSyslog();  // or the log fills up, and the library waits
    NetworkConfig config;
    config.tflite_model_path = path;
    config.output_names = {"not looked at"};
    return config;
  }

  /// How many networks have logged that they are there.
  static std::ptrdiff_t Started() {
    const std::vector<test::SyslogLine> lines = test::TakeSyslog();
    return std::count_if(lines.begin(), lines.end(), [](const test::SyslogLine& line) {
      return line.priority == 142 && line.text.ends_with(" [TfLiteNetwork] Init network");
    });
  }

  static std::string LoadError(const NetworkConfig& config) {
    std::string error = ErrorOf([&] { TfLiteNetwork network(config); });
    EXPECT_EQ(0, Started());
    return error;
  }
};

/// Twice the input, in another shape.
std::string Double(const Shape& input_shape, const Shape& output_shape) {
  TfLiteWriter writer;
  const int input = writer.Tensor(input_shape);
  const int doubled = writer.Tensor(input_shape);
  writer.Run(TfLiteWriter::kMul, {input, writer.Constant({1}, {2})}, doubled);
  const int output = writer.Tensor(output_shape);
  writer.Run(TfLiteWriter::kReshape, {doubled, writer.Constant(output_shape)}, output);
  return writer.Finish({input}, {output, doubled});
}

TEST_F(TfLiteNetworkTest, ReadsTheSecondDimensionOfTheFirstOutput) {
  const struct {
    Shape input;
    Shape output;
  } cases[] = {
      {{1, 1, 1, 5}, {1, 5}},
      {{1, 1, 2, 3}, {1, 2, 3}},
      {{4, 8, 8, 3}, {4, 192}},  // one image, whatever the batch dimension says
  };
  for (const auto& [input, output] : cases) {
    TfLiteNetwork network(Write(Double(input, output)));
    const cv::Mat image = Ramp(input[1], input[2], input[3]);
    std::vector<float> expected;
    for (int i = 0; i < output[1]; ++i) {
      expected.push_back(2.0F * static_cast<float>(i));
    }
    EXPECT_EQ((OutputMap{{"output", expected}}),
              network.Forward(std::vector<cv::Mat>{image * 3, image})[1]);
  }
}

TEST_F(TfLiteNetworkTest, TellsWhatFailedAndLogsWhatWorked) {
  ASSERT_EQ(0, mkfifo("fifo", 0600));
  const auto sample = [](const char* file) { return File(test::SampleModel::Path(file)); };
  for (const NetworkConfig& config : {File(""), File("fifo"), Write(""), sample("digits-cpu.xml"),
                                      sample("digits-cpu.bin"), sample("digits.caffemodel")}) {
    EXPECT_EQ("Failed to load model", LoadError(config)) << config.tflite_model_path;
  }
  EXPECT_EQ("Failed to load model", LoadError(Write("12345678")));
  const Shape shape = {1, 1, 1, 5};
  TfLiteWriter unknown_version;
  const int input = unknown_version.Tensor(shape);
  const int output = unknown_version.Tensor(shape);
  unknown_version.Run(TfLiteWriter::kMul, {input, input}, output, 0, {}, 999);
  EXPECT_EQ("Failed to build interpreter",
            LoadError(Write(unknown_version.Finish({input}, {output}))));
  EXPECT_EQ("Failed to allocate tensors", LoadError(Write(Double(shape, {1, 6}))));
  TfLiteNetwork(Write(Double(shape, {1, 5}))).WaitOutput();

  EXPECT_EQ(1, Started());
}

TEST_F(TfLiteNetworkTest, RefusesWhatWouldReadOrWriteBeyondMemory) {
  const cv::Mat wide = Ramp(2, 4, 3);
  TfLiteNetwork network(Write(Double({1, 2, 2, 3}, {1, 12})));
  EXPECT_EQ(22.0F, network.Forward(wide).at("output")[11]);  // what is left over is no harm
  network.ForwardAsync(cv::Mat());                           // which it does not look at

  TfLiteWriter integers;
  const int input = integers.Tensor({1, 2, 2, 3}, TfLiteWriter::kInt32);
  const int output = integers.Tensor({1, 12}, TfLiteWriter::kInt32);
  integers.Run(TfLiteWriter::kReshape, {input, integers.Constant({1, 12})}, output);
  TfLiteWriter beyond;
  const int rows = beyond.Tensor({1, 2, 2, 3});
  const int row = beyond.Tensor({1, 2, 2, 3});
  beyond.Run(TfLiteWriter::kGather, {rows, beyond.Constant({9})}, row);
  const std::pair<std::string, const char*> cases[] = {
      {Double({12}, {1, 12}), "Image does not fit the input tensor"},
      {integers.Finish({input}, {output}), "Image does not fit the input tensor"},
      {beyond.Finish({rows}, {row}), "Failed to invoke interpreter"},
      {Double({1, 2, 2, 3}, {12}), "Output tensor is not readable"},
  };
  for (const auto& [model, error] : cases) {
    TfLiteNetwork odd(Write(model));
    EXPECT_EQ(error, ErrorOf([&] { odd.Forward(wide); }));
  }
}

/// A real classifier's layers.
std::string Classifier(double stride) {
  using Option = TfLiteWriter::Option;
  TfLiteWriter writer;
  const int image = writer.Tensor({1, 4, 4, 3});
  const int features = writer.Tensor({1, 2, 2, 4});
  const int weights = writer.Constant({4, 3, 3, 3}, std::vector<float>(108, 0.1F));
  writer.Run(TfLiteWriter::kConv2D, {image, weights, writer.Constant({4}, {1, 2, 3, 4})}, features,
             1, {{1, stride, Option::kInt}, {2, stride, Option::kInt}});
  const int flat = writer.Tensor({1, 16});
  writer.Run(TfLiteWriter::kReshape, {features, writer.Constant({1, 16})}, flat);
  const int prob = writer.Tensor({1, 16});
  writer.Run(TfLiteWriter::kSoftmax, {flat}, prob, 9, {{0, 1, Option::kFloat}});
  return writer.Finish({image}, {prob});
}

// docs/hostile-models.md says what the engine does not survive.
TEST_F(TfLiteNetworkTest, SurvivesHostileFiles) {
  // Valid to the engine's own verifier, and then divided by.
  EXPECT_EQ("Failed to load model", LoadError(Write(Classifier(0))));
  const std::string model = Classifier(2);
  const test::MemoryFile file;
  const auto run = [&](const std::string& bytes) {
    bool loaded = false;
    const std::string error = ErrorOf([&] {
      TfLiteNetwork network(File(file.With(bytes)));
      loaded = true;
      network.Forward(Ramp(64, 64, 3));
    });
    return !loaded           ? test::Outcome::kRefused
           : error == "none" ? test::Outcome::kRan
                             : test::Outcome::kFailed;
  };
  test::ExpectSurvival("truncated", test::Truncations(model),
                       [&](int i) { return run(test::Truncated(model, i)); });
  test::ExpectSurvival("flipped", 6000 / test::kStride,
                       [&](int i) { return run(test::FlipOneBit(model, i)); });
}

}  // namespace
}  // namespace velmora::plugin::network
