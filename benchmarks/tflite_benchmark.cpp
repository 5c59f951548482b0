// TfLiteNetwork::Forward against the same work written by hand on the engine's own C API, on a
// network of MobileNet's size. Both sides run in turn in one loop; the figure to look at is
// `ratio`, the median time of the library over that of the other.
#include <benchmark/benchmark.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <cstdio>
#include <fstream>
#include <random>

#include "by_hand_tflite.h"
#include "interleaved.h"
#include "scratch_folder.h"
#include "support/tflite_writer.h"

namespace {

using velmora::plugin::network::NetworkConfig;
using velmora::plugin::network::TfLiteNetwork;
using velmora::test::TfLiteWriter;

using Option = TfLiteWriter::Option;

/// Random weights, layer by layer.
class Model {
 public:
  Model(int size, int channels)
      : size_(size), channels_(channels), top_(writer_.Tensor({1, size, size, channels})) {}

  void Convolution(int outputs, int kernel, int stride) {
    const int weights = Random({outputs, kernel, kernel, channels_});
    channels_ = outputs;
    Add(TfLiteWriter::kConv2D, weights, stride, 1,
        {Int(1, stride), Int(2, stride), {3, kRelu, Option::kByte}});
  }

  void Depthwise(int stride) {
    Add(TfLiteWriter::kDepthwiseConv2D, Random({1, 3, 3, channels_}), stride, 2,
        {Int(1, stride), Int(2, stride), Int(3, 1), {4, kRelu, Option::kByte}});
  }

  /// The mean of each channel, one fully connected layer and a softmax.
  std::string Classifier(int classes) {
    const int mean = writer_.Tensor({1, channels_});
    writer_.Run(TfLiteWriter::kMean, {top_, writer_.Constant({1, 2})}, mean, 27);
    const int score = writer_.Tensor({1, classes});
    writer_.Run(TfLiteWriter::kFullyConnected,
                {mean, Random({classes, channels_}), Random({classes})}, score, 8);
    const int prob = writer_.Tensor({1, classes});
    writer_.Run(TfLiteWriter::kSoftmax, {score}, prob, 9, {{0, 1, Option::kFloat}});
    return writer_.Finish({0}, {prob});
  }

 private:
  static constexpr int kRelu = 1;

  static Option Int(int field, int value) {
    return {field, static_cast<double>(value), Option::kInt};
  }

  int Random(const std::vector<std::int32_t>& shape) {
    std::size_t count = 1;
    for (const std::int32_t dim : shape) {
      count *= static_cast<std::size_t>(dim);
    }
    std::vector<float> values(count);
    std::uniform_real_distribution<float> distribution(-0.1F, 0.1F);
    for (float& value : values) {
      value = distribution(generator_);
    }
    return writer_.Constant(shape, values);
  }

  void Add(TfLiteWriter::Operator code, int weights, int stride, std::uint8_t options_type,
           const std::vector<Option>& options) {
    size_ = (size_ + stride - 1) / stride;
    const int out = writer_.Tensor({1, size_, size_, channels_});
    writer_.Run(code, {top_, weights, Random({channels_})}, out, options_type, options);
    top_ = out;
  }

  TfLiteWriter writer_;
  std::mt19937 generator_;
  int size_;
  int channels_;
  int top_;
};

NetworkConfig MobileNetSize() {
  Model model(224, 3);
  model.Convolution(32, 3, 2);
  const int blocks[][2] = {{64, 1},  {128, 2}, {128, 1}, {256, 2}, {256, 1},  {512, 2}, {512, 1},
                           {512, 1}, {512, 1}, {512, 1}, {512, 1}, {1024, 2}, {1024, 1}};
  for (const auto& [outputs, stride] : blocks) {
    model.Depthwise(stride);
    model.Convolution(outputs, 1, 1);
  }
  NetworkConfig config;
  config.tflite_model_path = "benchmark.tflite";
  std::ofstream(config.tflite_model_path, std::ios::binary) << model.Classifier(1000);
  return config;
}

void Forward(benchmark::State& state) {
  const NetworkConfig config = MobileNetSize();
  TfLiteNetwork network(config);
  ByHand by_hand("benchmark");
  cv::Mat image(224, 224, CV_32FC3);
  cv::randu(image, -1, 1);
  if (network.Forward(image) != by_hand.Forward(image)) {
    state.SkipWithError("the two sides compute different values");
  }
  AgainstByHand(
      state, [&] { benchmark::DoNotOptimize(network.Forward(image)); },
      [&] { benchmark::DoNotOptimize(by_hand.Forward(image)); });
}

BENCHMARK(Forward)->Name("TfLiteNetwork::Forward/MobileNet's size")->UseManualTime()->MinTime(5);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
#ifndef __OPTIMIZE__
  std::fputs("warning: not an optimised build, the figures mean nothing\n", stderr);
#endif
  const ScratchFolder folder;
  benchmark::RunSpecifiedBenchmarks();
}
