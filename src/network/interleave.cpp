#include "network/interleave.h"

#include <algorithm>
#include <cstring>

// Compiled with -O3 (see CMakeLists.txt), which turns the loops below into shuffles of whole
// vectors, because their number of channels is constant.

namespace velmora::plugin::network {

namespace {

using Copy = void (*)(const float*, float*, std::size_t);

/// Writes one plane at a time, in blocks that stay in the L1 cache: writing all three planes at
/// once took two to four times as long on an Intel Xeon.
inline __attribute__((always_inline)) void CopyThree(const float* __restrict image,
                                                     float* __restrict planes, std::size_t pixels) {
  constexpr std::size_t kBlock = 256;
  for (std::size_t begin = 0; begin < pixels; begin += kBlock) {
    const std::size_t count = std::min(kBlock, pixels - begin);
    for (std::size_t c = 0; c < 3; ++c) {
      const float* __restrict source = image + 3 * begin + c;
      float* __restrict plane = planes + c * pixels + begin;
      for (std::size_t p = 0; p < count; ++p) {
        plane[p] = source[3 * p];
      }
    }
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
__attribute__((target("avx512vl"))) void CopyThreeAvx512(const float* image, float* planes,
                                                         std::size_t pixels) {
  CopyThree(image, planes, pixels);
}

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
  if (channels == 4) {
    return avx2 ? CopyFourAvx2 : CopyFourAnywhere;
  }
  return static_cast<bool>(__builtin_cpu_supports("avx512vl")) ? CopyThreeAvx512
         : avx2                                                ? CopyThreeAvx2
                                                               : CopyThreeAnywhere;
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
