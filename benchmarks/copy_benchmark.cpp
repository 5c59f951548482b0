// The copy of an image into the planes of an engine's input, against memcpy of as many bytes and
// cv::split. All sides run in turn in one loop.
#include <benchmark/benchmark.h>

#include <cstring>
#include <opencv2/core.hpp>
#include <vector>

#include "interleaved.h"
#include "network/interleave.h"

namespace {

using velmora::plugin::network::InterleavedToPlanes;

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
}

BENCHMARK(Copy)->ArgsProduct({{224, 448, 1024}, {1, 3, 4}})->UseManualTime()->MinTime(0.2);

}  // namespace
