// The sample model's images, prepared as its description says, and its reference outputs.
#pragma once

#include <json/json.h>

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::test {

/// Fails the calling test where a value differs by more than the tolerance.
void ExpectNear(const std::vector<float>& expected, const std::vector<float>& actual,
                float tolerance);

class SampleModel {
 public:
  SampleModel();

  static std::string Path(const std::string& file);
  const std::vector<cv::Mat>& images() const { return images_; }

  /// What "prob" is for an image, and "features", which is known for the first few only.
  std::vector<float> Prob(std::size_t image) const;
  std::vector<float> Features(std::size_t image) const;
  std::size_t features_known() const { return reference_["features"]["values"].size(); }

 private:
  Json::Value reference_;
  std::vector<cv::Mat> images_;
};

}  // namespace velmora::test
