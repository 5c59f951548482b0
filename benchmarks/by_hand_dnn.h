// What DnnNetwork does, written by hand on OpenCV's API.
#pragma once

#include <opencv2/dnn.hpp>

#include "side.h"

class ByHand {
 public:
  explicit ByHand(const Task& task)
      : net_(cv::dnn::readNetFromCaffe(task.name + ".prototxt", task.name + ".caffemodel")) {}

  std::vector<Output> Forward(const std::vector<cv::Mat>& images) {
    std::vector<Output> results;
    for (const cv::Mat& image : images) {
      net_.setInput(cv::dnn::blobFromImage(image), "data");
      const std::vector<cv::String> names = {"prob"};
      std::vector<cv::Mat> outputs;
      net_.forward(outputs, names);
      const auto* const values = outputs[0].ptr<float>();
      results.push_back({{"prob", std::vector<float>(values, values + outputs[0].total())}});
    }
    return results;
  }

 private:
  cv::dnn::Net net_;
};
