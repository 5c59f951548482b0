// DnnNetwork::Forward against the same work written by hand on OpenCV's API.
//
// Both sides run in turn in one loop, so that whatever else the machine does hits both alike; the
// figure to look at is `ratio`, the median time of the library over that of the other.

#include <benchmark/benchmark.h>
#include <velmora/plugin/network/dnn_network.h>

#include <cstdio>
#include <fstream>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "by_hand_dnn.h"
#include "interleaved.h"
#include "scratch_folder.h"
#include "support/caffe_writer.h"

namespace {

using velmora::plugin::network::DnnNetwork;
using velmora::plugin::network::NetworkConfig;
using velmora::test::CaffeBlob;
using velmora::test::CaffeModel;
using velmora::test::MakeCaffeModel;

/// A network description that grows layer by layer, with random weights for it.
class Model {
 public:
  Model(int channels, int size)
      : prototxt_("layer { name: 'data' type: 'Input' top: 'data' input_param { shape { dim: [1, " +
                  std::to_string(channels) + ", " + std::to_string(size) + ", " +
                  std::to_string(size) + "] } } }"),
        channels_(channels) {}

  /// A convolution of 3 x 3 (depthwise: one filter for each channel) or 1 x 1, with a ReLU.
  void Convolution(int outputs, int kernel, int stride, bool depthwise = false) {
    const int group = depthwise ? channels_ : 1;
    const std::string name = "conv" + std::to_string(++layers_);
    prototxt_ += "layer { name: '" + name + "' type: 'Convolution' bottom: '" + top_ + "' top: '" +
                 name + "' convolution_param { num_output: " + std::to_string(outputs) +
                 " kernel_size: " + std::to_string(kernel) + " pad: " + std::to_string(kernel / 2) +
                 " stride: " + std::to_string(stride) + " group: " + std::to_string(group) +
                 " } } layer { name: '" + name + "/relu' type: 'ReLU' bottom: '" + name +
                 "' top: '" + name + "' }";
    blobs_.push_back({name, {outputs, channels_ / group, kernel, kernel}, -0.1F, 0.1F});
    blobs_.push_back({name, {outputs}, -0.1F, 0.1F});
    channels_ = outputs;
    top_ = name;
  }

  /// The mean of each plane, one fully connected layer and a softmax, "prob". Writes the files.
  NetworkConfig Classifier(int classes) {
    prototxt_ += "layer { name: 'pool' type: 'Pooling' bottom: '" + top_ +
                 "' top: 'pool' pooling_param { pool: AVE global_pooling: true } }"
                 "layer { name: 'fc' type: 'InnerProduct' bottom: 'pool' top: 'fc'"
                 " inner_product_param { num_output: " +
                 std::to_string(classes) +
                 " } } layer { name: 'prob' type: 'Softmax' bottom: 'fc' top: 'prob' }";
    blobs_.push_back({"fc", {classes, channels_}, -0.1F, 0.1F});
    blobs_.push_back({"fc", {classes}, -0.1F, 0.1F});
    const CaffeModel model = MakeCaffeModel(prototxt_, blobs_);
    NetworkConfig config;
    config.output_names = {"prob"};
    config.dnn_prototxt_path = "benchmark.prototxt";
    config.dnn_caffemodel_path = "benchmark.caffemodel";
    std::ofstream(config.dnn_prototxt_path) << model.prototxt;
    std::ofstream(config.dnn_caffemodel_path, std::ios::binary) << model.weights;
    return config;
  }

 private:
  std::string prototxt_;
  std::vector<CaffeBlob> blobs_;
  std::string top_ = "data";
  int channels_;
  int layers_ = 0;
};

NetworkConfig MobileNetSize() {
  Model model(3, 224);
  model.Convolution(32, 3, 2);
  const int blocks[][2] = {{64, 1},  {128, 2}, {128, 1}, {256, 2}, {256, 1},  {512, 2}, {512, 1},
                           {512, 1}, {512, 1}, {512, 1}, {512, 1}, {1024, 2}, {1024, 1}};
  int channels = 32;
  for (const auto& [outputs, stride] : blocks) {
    model.Convolution(channels, 3, stride, true);
    model.Convolution(outputs, 1, 1);
    channels = outputs;
  }
  return model.Classifier(1000);
}

NetworkConfig TinySize() {
  Model model(3, 32);
  model.Convolution(8, 3, 2);
  return model.Classifier(10);
}

void Forward(benchmark::State& state, const NetworkConfig& config, int size) {
  DnnNetwork network(config);
  ByHand by_hand("benchmark");
  cv::Mat image(size, size, CV_32FC3);
  cv::randu(image, -1, 1);
  if (network.Forward(image) != by_hand.Forward(image)) {
    state.SkipWithError("the two sides compute different values");
  }

  AgainstByHand(
      state, [&] { benchmark::DoNotOptimize(network.Forward(image)); },
      [&] { benchmark::DoNotOptimize(by_hand.Forward(image)); });
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
#ifndef __OPTIMIZE__
  std::fputs("warning: not an optimised build, the figures mean nothing\n", stderr);
#endif
  const ScratchFolder folder;
  benchmark::AddCustomContext("opencv", cv::getVersionString());
  benchmark::AddCustomContext("opencv threads", std::to_string(cv::getNumThreads()));
  benchmark::RegisterBenchmark(
      "DnnNetwork::Forward/MobileNet's size",
      [](benchmark::State& state) { Forward(state, MobileNetSize(), 224); })
      ->UseManualTime()
      ->MinTime(10);
  benchmark::RegisterBenchmark("DnnNetwork::Forward/tiny", [](benchmark::State& state) {
    Forward(state, TinySize(), 32);
  })->UseManualTime();
  benchmark::RunSpecifiedBenchmarks();
}
