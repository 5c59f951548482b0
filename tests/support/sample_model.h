// The sample model's images, prepared as its description says, and its reference outputs.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::test {

struct SampleModel {
  SampleModel();

  static std::string Path(const std::string& file);

  std::vector<cv::Mat> images;

  // For each image, "features" for the first few only.
  std::vector<std::vector<float>> prob;
  std::vector<std::vector<float>> features;
};

}  // namespace velmora::test
