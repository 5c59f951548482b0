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

namespace format = velmora::test::format;
using Operator = TfLiteWriter::Operator;

/// Random weights, layer by layer.
class Model {
 public:
  Model(int size, int channels)
      : size_(size), channels_(channels), top_(writer_.Tensor({1, size, size, channels})) {}

  void Convolution(int outputs, int kernel, int stride) {
    const int weights = Random({outputs, kernel, kernel, channels_});
    channels_ = outputs;
    Add(Operator::CONV_2D, weights, stride, format::Conv2DOptionsT());
  }

  void Depthwise(int stride) {
    format::DepthwiseConv2DOptionsT options;
    options.depth_multiplier = 1;
    Add(Operator::DEPTHWISE_CONV_2D, Random({1, 3, 3, channels_}), stride, options);
  }

  /// The mean of each channel, one fully connected layer and a softmax.
  std::string Classifier(int classes) {
    using velmora::test::Options;
    const int mean = writer_.Into({1, channels_}, Operator::MEAN, {top_, writer_.Constant({1, 2})},
                                  Options(format::ReducerOptionsT()));
    const int score = writer_.Into({1, classes}, Operator::FULLY_CONNECTED,
                                   {mean, Random({classes, channels_}), Random({classes})},
                                   Options(format::FullyConnectedOptionsT()));
    format::SoftmaxOptionsT softmax;
    softmax.beta = 1;
    return writer_.Finish(
        {0}, {writer_.Into({1, classes}, Operator::SOFTMAX, {score}, Options(softmax))});
  }

 private:
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

  template <typename Table>
  void Add(Operator code, int weights, int stride, Table options) {
    options.stride_w = options.stride_h = stride;
    options.fused_activation_function = format::ActivationFunctionType::RELU;
    size_ = (size_ + stride - 1) / stride;
    top_ = writer_.Into({1, size_, size_, channels_}, code, {top_, weights, Random({channels_})},
                        velmora::test::Options(options));
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
