// What DnnNetwork does, written by hand on OpenCV's API.
#pragma once

#include <opencv2/dnn.hpp>
#include <string>
#include <unordered_map>
#include <vector>

/// The network of NAME.prototxt and NAME.caffemodel.
class ByHand {
 public:
  explicit ByHand(const std::string& name)
      : net_(cv::dnn::readNetFromCaffe(name + ".prototxt", name + ".caffemodel")) {}

  std::unordered_map<std::string, std::vector<float>> Forward(const cv::Mat& image) {
    net_.setInput(cv::dnn::blobFromImage(image), "data");
    const std::vector<cv::String> names = {"prob"};
    std::vector<cv::Mat> outputs;
    net_.forward(outputs, names);
    const auto* const values = outputs[0].ptr<float>();
    return {{"prob", std::vector<float>(values, values + outputs[0].total())}};
  }

 private:
  cv::dnn::Net net_;
};
