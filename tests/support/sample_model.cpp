#include "support/sample_model.h"

#include <gtest/gtest.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace velmora::test {
namespace {

std::vector<float> Floats(const Json::Value& array) {
  std::vector<float> values;
  for (const Json::Value& value : array) values.push_back(value.asFloat());
  return values;
}

}  // namespace

void ExpectNear(const std::vector<float>& expected, const std::vector<float>& actual,
                float tolerance) {
  ASSERT_EQ(expected.size(), actual.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_NEAR(expected[i], actual[i], tolerance) << "value " << i;
  }
}

SampleModel::SampleModel() {
  std::ifstream(Path("reference.json")) >> reference_;
  Json::Value model;
  std::ifstream(Path("model.json")) >> model;
  const std::vector<float> mean = Floats(model["image"]["mean"]);
  const std::vector<float> scale = Floats(model["image"]["scale"]);
  for (const Json::Value& file : reference_["images"]) {
    cv::Mat pixels = cv::imread(Path(file.asString()));
    cv::resize(pixels, pixels, {24, 32});
    cv::cvtColor(pixels, pixels, cv::COLOR_BGR2RGB);
    pixels.convertTo(pixels, CV_32F);
    cv::subtract(pixels, cv::Scalar(mean[0], mean[1], mean[2]), pixels);
    cv::multiply(pixels, cv::Scalar(scale[0], scale[1], scale[2]), pixels);
    images_.push_back(pixels);
  }
}

std::string SampleModel::Path(const std::string& file) { return VELMORA_SAMPLE_MODEL "/" + file; }

std::vector<float> SampleModel::Prob(std::size_t image) const {
  return Floats(reference_["prob"][static_cast<Json::ArrayIndex>(image)]);
}

std::vector<float> SampleModel::Features(std::size_t image) const {
  return Floats(reference_["features"]["values"][static_cast<Json::ArrayIndex>(image)]);
}

}  // namespace velmora::test
