#include "network/interleave.h"

#include <cstring>
#include <opencv2/core.hpp>
#include <vector>

// Compiled with -O3, which turns the loops below into shuffles of whole vectors: see
// CMakeLists.txt.

namespace velmora::plugin::network {

namespace {

// From this size on, OpenCV's own split is faster: it writes past the caches.
constexpr std::size_t kBeyondCaches = std::size_t{1} << 20;

using Copy = void (*)(const float*, float*, std::size_t);

// The number of channels is known here, which is what makes the loops fast.

inline __attribute__((always_inline)) void CopyThree(const float* __restrict image,
                                                     float* __restrict planes, std::size_t pixels) {
  float* __restrict first = planes;
  float* __restrict second = planes + pixels;
  float* __restrict third = planes + 2 * pixels;
  for (std::size_t p = 0; p < pixels; ++p) {
    first[p] = image[3 * p];
    second[p] = image[3 * p + 1];
    third[p] = image[3 * p + 2];
  }
}

inline __attribute__((always_inline)) void CopyFour(const float* __restrict image,
                                                    float* __restrict planes, std::size_t pixels) {
  float* __restrict first = planes;
  float* __restrict second = planes + pixels;
  float* __restrict third = planes + 2 * pixels;
  float* __restrict fourth = planes + 3 * pixels;
  for (std::size_t p = 0; p < pixels; ++p) {
    first[p] = image[4 * p];
    second[p] = image[4 * p + 1];
    third[p] = image[4 * p + 2];
    fourth[p] = image[4 * p + 3];
  }
}

void CopyThreeAnywhere(const float* image, float* planes, std::size_t pixels) {
  CopyThree(image, planes, pixels);
}

void CopyFourAnywhere(const float* image, float* planes, std::size_t pixels) {
  CopyFour(image, planes, pixels);
}

#ifdef __x86_64__
__attribute__((target("avx2"))) void CopyThreeAvx2(const float* image, float* planes,
                                                   std::size_t pixels) {
  CopyThree(image, planes, pixels);
}

__attribute__((target("avx2"))) void CopyFourAvx2(const float* image, float* planes,
                                                  std::size_t pixels) {
  CopyFour(image, planes, pixels);
}

Copy ChooseCopy(std::size_t channels) {
  const auto avx2 = static_cast<bool>(__builtin_cpu_supports("avx2"));
  return channels == 3 ? (avx2 ? CopyThreeAvx2 : CopyThreeAnywhere)
                       : (avx2 ? CopyFourAvx2 : CopyFourAnywhere);
}
#else
Copy ChooseCopy(std::size_t channels) {
  return channels == 3 ? CopyThreeAnywhere : CopyFourAnywhere;
}
#endif

}  // namespace

void InterleavedToPlanes(const float* image, float* planes, std::size_t channels,
                         std::size_t pixels) {
  if (channels == 1) {
    std::memcpy(planes, image, pixels * sizeof(float));
  } else if (pixels * channels * sizeof(float) >= kBeyondCaches) {
    const int count = static_cast<int>(channels);
    const cv::Mat source(1, static_cast<int>(pixels), CV_MAKETYPE(CV_32F, count),
                         const_cast<float*>(image));
    std::vector<cv::Mat> parts;
    for (std::size_t c = 0; c < channels; ++c) {
      parts.emplace_back(1, static_cast<int>(pixels), CV_32F, planes + c * pixels);
    }
    cv::split(source, parts);
  } else if (channels == 3 || channels == 4) {
    ChooseCopy(channels)(image, planes, pixels);
  } else {
    for (std::size_t c = 0; c < channels; ++c) {
      for (std::size_t p = 0; p < pixels; ++p) {
        planes[c * pixels + p] = image[p * channels + c];
      }
    }
  }
}

}  // namespace velmora::plugin::network
