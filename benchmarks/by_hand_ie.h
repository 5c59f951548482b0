// What IeNetwork does, written by hand on OpenVINO's own API.
#pragma once

#include <opencv2/core.hpp>
#include <openvino/openvino.hpp>

#include "side.h"

/// Told the same as the library tells the engine.
class ByHand {
 public:
  explicit ByHand(const Task& task) {
    ov::Core core;
    core.set_property(ov::cache_dir("/var/packages/Velmora/target/models/openvino_cache"));
    const auto model = core.read_model(task.name + ".xml", task.name + ".bin");
    ov::Shape shape = model->input().get_shape();
    shape[0] = static_cast<std::size_t>(task.batch);
    model->reshape(ov::PartialShape(shape));
    ov::AnyMap properties;
    if (task.device == "CPU") {
      properties.insert(ov::hint::inference_precision(ov::element::f32));
    }
    request_ = core.compile_model(model, task.device, properties).create_infer_request();
  }

  std::vector<Output> Forward(const std::vector<cv::Mat>& images) {
    ov::Tensor input = request_.get_input_tensor();
    const std::size_t pixels = images[0].total();
    for (std::size_t n = 0; n < images.size(); ++n) {
      std::vector<cv::Mat> planes;
      for (std::size_t c = 0; c < 3; ++c) {
        planes.emplace_back(images[n].rows, images[n].cols, CV_32F,
                            input.data<float>() + (3 * n + c) * pixels);
      }
      cv::split(images[n], planes);
    }
    request_.infer();
    const ov::Tensor output = request_.get_tensor("prob");
    const std::size_t count = output.get_size() / images.size();
    std::vector<Output> results(images.size());
    for (std::size_t n = 0; n < images.size(); ++n) {
      const float* const values = output.data<float>() + n * count;
      results[n]["prob"] = std::vector<float>(values, values + count);
    }
    return results;
  }

 private:
  ov::InferRequest request_;
};
