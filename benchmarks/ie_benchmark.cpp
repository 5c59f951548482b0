// The Inference Engine backend against the same work written by hand: the copy of an image into
// planes, an inference, and a move between devices. Both sides run in turn in one loop; the figure
// to look at is `ratio`, the median time of the library over that of the other.

#include <benchmark/benchmark.h>
#include <reelhouse/trans_loading.h>
#include <velmora/plugin/network/ie_network.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <opencv2/core.hpp>
#include <openvino/openvino.hpp>
#include <openvino/opsets/opset8.hpp>
#include <random>
#include <string>
#include <vector>

#include "by_hand_ie.h"
#include "interleaved.h"
#include "network/interleave.h"
#include "scratch_folder.h"

namespace {

bool machine_has_gpu = false;

}  // namespace

// In the place of the platform library's: the stand-in GPU is none that it would find.
namespace velmora::plugin::platform {
bool IsSupportedIENetworkGpu() { return machine_has_gpu; }
}  // namespace velmora::plugin::platform

namespace {

namespace ops = ov::opset8;
using velmora::plugin::network::IeNetwork;
using velmora::plugin::network::InterleavedToPlanes;
using velmora::plugin::network::NetworkConfig;

// ---- the copy ----------------------------------------------------------------------------------

void Copy(benchmark::State& state) {
  const auto size = static_cast<int>(state.range(0));
  const auto channels = static_cast<int>(state.range(1));
  const auto pixels = static_cast<std::size_t>(size) * static_cast<std::size_t>(size);
  const auto count = static_cast<std::size_t>(channels);
  cv::setNumThreads(1);
  cv::Mat image(size, size, CV_MAKETYPE(CV_32F, channels));
  cv::randu(image, -1, 1);
  std::vector<float> planes(pixels * count);
  std::vector<cv::Mat> parts;
  for (std::size_t c = 0; c < count; ++c) {
    parts.emplace_back(size, size, CV_32F, planes.data() + c * pixels);
  }
  Interleaved times(3);
  for (auto _ : state) {
    times.Run({[&] { InterleavedToPlanes(image.ptr<float>(), planes.data(), count, pixels); },
               [&] { std::memcpy(planes.data(), image.ptr<float>(), planes.size() * 4); },
               [&] { cv::split(image, parts); }},
              // As an engine leaves the planes that it has read.
              [&] {
                float sum = 0;
                for (std::size_t i = 0; i < planes.size(); i += 16) {
                  sum += planes[i];
                }
                benchmark::DoNotOptimize(sum);
              });
    state.SetIterationTime(times.LastSeconds(0));
  }
  state.counters["library_us"] = times.Median(0) * 1e6;
  state.counters["memcpy_us"] = times.Median(1) * 1e6;
  state.counters["split_us"] = times.Median(2) * 1e6;
  state.counters["ratio_to_memcpy"] = times.Median(0) / times.Median(1);
  state.counters["ratio_to_split"] = times.Median(0) / times.Median(2);
}

// ---- an inference ------------------------------------------------------------------------------

/// A network of MobileNet's size with random weights, built layer by layer.
class Model {
 public:
  explicit Model(const ov::Shape& shape)
      : input_(std::make_shared<ops::Parameter>(ov::element::f32, shape)),
        top_(input_),
        channels_(shape[1]) {
    input_->set_friendly_name("data");
  }

  void Convolution(std::size_t outputs, std::size_t kernel, std::size_t stride) {
    Add(std::make_shared<ops::Convolution>(top_, Random({outputs, channels_, kernel, kernel}),
                                           ov::Strides{stride, stride}, Padding(kernel),
                                           Padding(kernel), ov::Strides{1, 1}));
    channels_ = outputs;
  }

  void Depthwise(std::size_t stride) {
    Add(std::make_shared<ops::GroupConvolution>(top_, Random({channels_, 1, 1, 3, 3}),
                                                ov::Strides{stride, stride}, Padding(3), Padding(3),
                                                ov::Strides{1, 1}));
  }

  /// The mean of each plane, one fully connected layer and a softmax "prob". Writes NAME.xml and
  /// .bin.
  NetworkConfig Classifier(std::size_t classes, const std::string& name, std::uint32_t batch) {
    const auto axes = ops::Constant::create(ov::element::i64, {2}, {2, 3});
    const auto mean = std::make_shared<ops::ReduceMean>(top_, axes);
    const auto score = std::make_shared<ops::MatMul>(mean, Random({channels_, classes}));
    const auto prob = std::make_shared<ops::Softmax>(score, 1);
    prob->set_friendly_name("prob");
    ov::serialize(std::make_shared<ov::Model>(ov::ResultVector{std::make_shared<ops::Result>(prob)},
                                              ov::ParameterVector{input_}),
                  name + ".xml", name + ".bin");
    NetworkConfig config;
    config.output_names = {"prob"};
    config.ie_cpu_xml_path = name + ".xml";
    config.ie_cpu_bin_path = name + ".bin";
    config.ie_gpu_xml_path = name + ".xml";
    config.ie_gpu_bin_path = name + ".bin";
    config.batch_size = batch;
    return config;
  }

 private:
  static ov::CoordinateDiff Padding(std::size_t kernel) {
    const auto padding = static_cast<std::ptrdiff_t>(kernel / 2);
    return {padding, padding};
  }

  void Add(const std::shared_ptr<ov::Node>& node) { top_ = std::make_shared<ops::Relu>(node); }

  std::shared_ptr<ops::Constant> Random(const ov::Shape& shape) {
    std::vector<float> values(ov::shape_size(shape));
    std::uniform_real_distribution<float> distribution(-0.1F, 0.1F);
    for (float& value : values) {
      value = distribution(generator_);
    }
    return ops::Constant::create(ov::element::f32, shape, values);
  }

  std::mt19937 generator_;
  std::shared_ptr<ops::Parameter> input_;
  std::shared_ptr<ov::Node> top_;
  std::size_t channels_;
};

NetworkConfig MobileNetSize(std::uint32_t batch) {
  Model model({1, 3, 224, 224});
  model.Convolution(32, 3, 2);
  const std::size_t blocks[][2] = {{64, 1},  {128, 2},  {128, 1}, {256, 2}, {256, 1},
                                   {512, 2}, {512, 1},  {512, 1}, {512, 1}, {512, 1},
                                   {512, 1}, {1024, 2}, {1024, 1}};
  for (const auto& [outputs, stride] : blocks) {
    model.Depthwise(stride);
    model.Convolution(outputs, 1, 1);
  }
  return model.Classifier(1000, "ie-benchmark", batch);
}

void Forward(benchmark::State& state, const std::string& device) {
  const auto batch = static_cast<std::uint32_t>(state.range(0));
  const NetworkConfig config = MobileNetSize(batch);
  machine_has_gpu = device == "GPU";
  if (machine_has_gpu && ov::Core().get_available_devices().size() < 2) {
    state.SkipWithError("the stand-in GPU is not in this engine's list");
    return;
  }
  IeNetwork network(config);
  ByHand by_hand("ie-benchmark", device, batch);
  std::vector<cv::Mat> images(batch);
  for (cv::Mat& image : images) {
    image.create(224, 224, CV_32FC3);
    cv::randu(image, -1, 1);
  }
  if (network.Forward(images) != by_hand.Forward(images)) {
    state.SkipWithError("the two sides compute different values");
  }
  AgainstByHand(
      state, [&] { benchmark::DoNotOptimize(network.Forward(images)); },
      [&] {
        if (machine_has_gpu) {
          const LibReelhouse::TransLoading record;
          benchmark::DoNotOptimize(record.IsHardwareTranscoding());
        }
        benchmark::DoNotOptimize(by_hand.Forward(images));
      });
}

/// What a switch does, which is a construction without the record, against the engine's own load,
/// both from the model cache.
void Load(benchmark::State& state) {
  const NetworkConfig config = MobileNetSize(1);
  machine_has_gpu = false;
  AgainstByHand(
      state, [&] { const IeNetwork network(config); },
      [&] { const ByHand by_hand("ie-benchmark"); });
}

BENCHMARK(Copy)->ArgsProduct({{224, 448, 1024}, {1, 3, 4}})->UseManualTime()->MinTime(0.2);
BENCHMARK_CAPTURE(Forward, CPU, "CPU")->Arg(1)->Arg(8)->UseManualTime()->MinTime(5);
// With LD_LIBRARY_PATH at the tests' folder "engine", whose stand-in "GPU" is the CPU: what is
// measured is what a network that may move costs above the engine and one look at the record.
BENCHMARK_CAPTURE(Forward, GPU, "GPU")->Arg(1)->Arg(8)->UseManualTime()->MinTime(5);
BENCHMARK(Load)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
#ifndef __OPTIMIZE__
  std::fputs("warning: not an optimised build, the figures mean nothing\n", stderr);
#endif
  const ScratchFolder folder;
  benchmark::AddCustomContext("openvino", ov::get_openvino_version().buildNumber);
  benchmark::RunSpecifiedBenchmarks();
}
