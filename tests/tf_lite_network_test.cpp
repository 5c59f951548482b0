#include <gmock/gmock.h>
#include <sys/stat.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "support/hostile.h"
#include "support/own_namespace.h"
#include "support/sample_model.h"
#include "support/tflite_writer.h"

namespace velmora::plugin::network {
namespace {

using test::TfLiteWriter;

class TfLiteNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::current_path("/tmp");
    test::TakeSyslog();
  }

  static NetworkConfig Write(const std::string& bytes) {
    std::ofstream("model.tflite", std::ios::binary) << bytes;
    NetworkConfig config;
    config.tflite_model_path = "model.tflite";
    config.output_names = {"not looked at"};
    return config;
  }
};

using Shape = std::vector<std::int32_t>;

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

cv::Mat Ramp(int rows, int cols, int channels) {
  cv::Mat image(rows, cols, CV_MAKETYPE(CV_32F, channels));
  for (int i = 0; i < rows * cols * channels; ++i) {
    image.ptr<float>()[i] = static_cast<float>(i);
  }
  return image;
}

/// The library's own lines; the engine's are left out.
std::vector<std::string> TakeLog() {
  std::vector<std::string> lines;
  for (const test::SyslogLine& line : test::TakeSyslog()) {
    if (line.text.find("TensorFlow Lite: ") == std::string::npos) {
      lines.push_back(std::to_string(line.priority) + " " + line.text);
    }
  }
  return lines;
}

/// An error leaves no line of the library's own in the log.
std::string ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& exception) {
    EXPECT_TRUE(TakeLog().empty());
    return exception.message;
  }
  return "none";
}

TEST_F(TfLiteNetworkTest, ReadsTheSecondDimensionOfTheFirstOutput) {
  const struct {
    Shape input;
    Shape output;
    std::vector<float> expected;
  } cases[] = {
      {{1, 1, 1, 5}, {1, 5}, {0, 2, 4, 6, 8}},
      {{1, 1, 2, 3}, {1, 2, 3}, {0, 2}},
      {{4, 8, 8, 3}, {4, 192}, {}},  // one image, whatever the batch dimension says
  };
  for (const auto& [input, output, expected] : cases) {
    TfLiteNetwork network(Write(Double(input, output)));
    const cv::Mat image = Ramp(input[1], input[2], input[3]);
    const OutputMap result = network.Forward(image);
    ASSERT_EQ(1U, result.size());
    std::vector<float> values(static_cast<std::size_t>(output[1]));
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = 2.0F * static_cast<float>(i);
    }
    EXPECT_EQ(expected.empty() ? values : expected, result.at("output"));
    EXPECT_EQ(result, network.Forward(std::vector<cv::Mat>{image * 3, image})[1]);
  }
}

TEST_F(TfLiteNetworkTest, HasNoAsynchronousWay) {
  TfLiteNetwork network(Write(Double({1, 1, 1, 5}, {1, 5})));
  EXPECT_TRUE(network.WaitOutput().empty());
  network.ForwardAsync(cv::Mat());  // which would be refused if it were looked at
  EXPECT_TRUE(network.WaitOutput().empty());
}

TEST_F(TfLiteNetworkTest, TellsWhatFailedAndLogsWhatWorked) {
  const std::string good = Double({1, 1, 1, 5}, {1, 5});
  { const TfLiteNetwork network(Write(good)); }
  EXPECT_THAT(TakeLog(), testing::ElementsAre(
                             testing::MatchesRegex("142 src/network/tf_lite_network\\.cpp:[0-9]+ "
                                                   "\\[TfLiteNetwork\\] Init network")));

  const auto load = [](const std::string& bytes) {
    return ErrorOf([&] { TfLiteNetwork network(Write(bytes)); });
  };
  EXPECT_EQ("Failed to load model", ErrorOf([] { TfLiteNetwork network({}); }));
  EXPECT_EQ("Failed to load model", load(""));
  EXPECT_EQ("Failed to load model", load("12345678"));
  ASSERT_EQ(0, mkfifo("fifo", 0600));
  NetworkConfig fifo;
  fifo.tflite_model_path = "fifo";
  EXPECT_EQ("Failed to load model", ErrorOf([&] { TfLiteNetwork network(fifo); }));
  for (const char* const other : {"digits-cpu.xml", "digits-cpu.bin", "digits.caffemodel"}) {
    NetworkConfig config;
    config.tflite_model_path = test::SampleModel::Path(other);
    EXPECT_EQ("Failed to load model", ErrorOf([&] { TfLiteNetwork network(config); })) << other;
  }
  TfLiteWriter unknown_version;
  const int input = unknown_version.Tensor({1, 1, 1, 5});
  unknown_version.Run(TfLiteWriter::kMul, {input, input}, unknown_version.Tensor({1, 1, 1, 5}), 0,
                      {}, 999);
  EXPECT_EQ("Failed to build interpreter", load(unknown_version.Finish({input}, {1})));
  EXPECT_EQ("Failed to allocate tensors", load(Double({1, 1, 1, 5}, {1, 6})));
}

TEST_F(TfLiteNetworkTest, RefusesWhatWouldReadOrWriteBeyondMemory) {
  TfLiteNetwork network(Write(Double({1, 2, 2, 3}, {1, 12})));
  const cv::Mat wide = Ramp(2, 4, 3);
  TakeLog();
  const std::string no_fit = "Image does not fit the input tensor";
  for (const cv::Mat& image :
       {cv::Mat(), Ramp(2, 1, 3), cv::Mat(2, 8, CV_8UC3), cv::Mat(wide.colRange(0, 2))}) {
    EXPECT_EQ(no_fit, ErrorOf([&] { network.Forward(image); })) << image.size();
  }
  EXPECT_EQ(22.0F, network.Forward(wide).at("output")[11]);  // more than is needed is no harm

  TfLiteWriter bytes;
  const int input = bytes.Tensor({1, 2, 2, 3}, TfLiteWriter::kUInt8);
  const int output = bytes.Tensor({1, 12}, TfLiteWriter::kUInt8);
  bytes.Run(TfLiteWriter::kReshape, {input, bytes.Constant({1, 12})}, output);
  for (const std::string& model :
       {Double({12}, {1, 12}), Double({0, 2, 2, 3}, {1, 0}), bytes.Finish({input}, {output})}) {
    TfLiteNetwork odd(Write(model));
    TakeLog();
    EXPECT_EQ(no_fit, ErrorOf([&] { odd.Forward(wide); }));
  }
  TfLiteNetwork flat(Write(Double({1, 2, 2, 3}, {12})));
  TakeLog();
  EXPECT_EQ("Output tensor is not readable", ErrorOf([&] { flat.Forward(wide); }));
}

// A real classifier's layers. docs/hostile-models.md says what the engine does not survive.
TEST_F(TfLiteNetworkTest, SurvivesHostileFiles) {
  TfLiteWriter writer;
  const int image = writer.Tensor({1, 4, 4, 3});
  const int features = writer.Tensor({1, 2, 2, 4});
  writer.Run(TfLiteWriter::kConv2D,
             {image, writer.Constant({4, 3, 3, 3}, std::vector<float>(108, 0.1F)),
              writer.Constant({4}, {1, 2, 3, 4})},
             features, 1, {{1, 2, TfLiteWriter::Option::kInt}, {2, 2, TfLiteWriter::Option::kInt}});
  const int flat = writer.Tensor({1, 16});
  writer.Run(TfLiteWriter::kReshape, {features, writer.Constant({1, 16})}, flat);
  const int score = writer.Tensor({1, 2});
  writer.Run(
      TfLiteWriter::kFullyConnected,
      {flat, writer.Constant({2, 16}, std::vector<float>(32, 1)), writer.Constant({2}, {0, 1})},
      score, 8);
  const int prob = writer.Tensor({1, 2});
  writer.Run(TfLiteWriter::kSoftmax, {score}, prob, 9, {{0, 1, TfLiteWriter::Option::kFloat}});
  const std::string model = writer.Finish({image}, {prob});

  const test::MemoryFile file;
  const auto run = [&](const std::string& bytes) {
    test::TakeSyslog();
    NetworkConfig config;
    config.tflite_model_path = file.With(bytes);
    std::unique_ptr<TfLiteNetwork> network;
    try {
      network = std::make_unique<TfLiteNetwork>(config);
    } catch (const Exception&) {
      return test::Outcome::kRefused;
    }
    try {
      network->Forward(Ramp(64, 64, 3));
      return test::Outcome::kRan;
    } catch (const Exception&) {
      return test::Outcome::kFailed;
    }
  };
  test::ExpectSurvival("truncated", test::Truncations(model),
                       [&](int i) { return run(test::Truncated(model, i)); });
  test::ExpectSurvival("flipped", 6000 / test::kStride,
                       [&](int i) { return run(test::FlipOneBit(model, i)); });
}

}  // namespace
}  // namespace velmora::plugin::network
