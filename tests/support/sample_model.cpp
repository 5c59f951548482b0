#include "support/sample_model.h"

#include <gtest/gtest.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace velmora::test {
namespace {

Json::Value ReadJson(const std::string& path) {
  Json::Value root;
  std::ifstream(path) >> root;
  return root;
}

std::vector<float> Floats(const Json::Value& array) {
  std::vector<float> values;
  for (const Json::Value& value : array) {
    values.push_back(value.asFloat());
  }
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

SampleModel::SampleModel() : reference_(ReadJson(Path("reference.json"))) {
  const Json::Value description = ReadJson(Path("model.json"))["image"];
  const cv::Size size(description["width"].asInt(), description["height"].asInt());
  const std::vector<float> mean = Floats(description["mean"]);
  const std::vector<float> scale = Floats(description["scale"]);
  for (const Json::Value& file : reference_["images"]) {
    cv::Mat pixels = cv::imread(Path(file.asString()));
    cv::resize(pixels, pixels, size);
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
