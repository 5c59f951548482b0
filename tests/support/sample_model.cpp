#include "support/sample_model.h"

#include <json/json.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace velmora::test {
namespace {

std::vector<float> Floats(const Json::Value& array) {
  std::vector<float> values;
  for (const Json::Value& value : array) {
    values.push_back(value.asFloat());
  }
  return values;
}

}  // namespace

SampleModel::SampleModel() {
  Json::Value reference;
  Json::Value model;
  std::ifstream(Path("reference.json")) >> reference;
  std::ifstream(Path("model.json")) >> model;
  const std::vector<float> mean = Floats(model["image"]["mean"]);
  const std::vector<float> scale = Floats(model["image"]["scale"]);
  for (const Json::Value& file : reference["images"]) {
    cv::Mat pixels = cv::imread(Path(file.asString()));
    cv::resize(pixels, pixels, {24, 32});
    cv::cvtColor(pixels, pixels, cv::COLOR_BGR2RGB);
    pixels.convertTo(pixels, CV_32F);
    cv::subtract(pixels, cv::Scalar(mean[0], mean[1], mean[2]), pixels);
    cv::multiply(pixels, cv::Scalar(scale[0], scale[1], scale[2]), pixels);
    images.push_back(pixels);
  }
  for (const Json::Value& values : reference["prob"]) {
    prob.push_back(Floats(values));
  }
  for (const Json::Value& values : reference["features"]["values"]) {
    features.push_back(Floats(values));
  }
}

std::string SampleModel::Path(const std::string& file) { return VELMORA_SAMPLE_MODEL "/" + file; }

}  // namespace velmora::test
