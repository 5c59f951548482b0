// What the tests of the backends share.
#pragma once

#include <velmora/plugin/network/base_network.h>

#include <numeric>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::test {

/// The text of the Exception that a call throws; "none" without one.
template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const plugin::network::Exception& exception) {
    return exception.message;
  }
  return "none";
}

/// An image of floats that count up from `first`.
inline cv::Mat Ramp(int rows, int cols, int channels, float first = 0) {
  cv::Mat image(rows, cols, CV_MAKETYPE(CV_32F, channels));
  std::iota(image.ptr<float>(), image.ptr<float>() + rows * cols * channels, first);
  return image;
}

/// Such an image in planes, times a factor.
inline std::vector<float> Planes(int pixels, int channels, float factor, float first = 0) {
  std::vector<float> values;
  for (int channel = 0; channel < channels; ++channel) {
    for (int pixel = 0; pixel < pixels; ++pixel) {
      values.push_back(factor * (first + static_cast<float>(pixel * channels + channel)));
    }
  }
  return values;
}

}  // namespace velmora::test
