// What TfLiteNetwork does, written by hand on the engine's own C API.
#pragma once

#include <cstring>
#include <opencv2/core.hpp>

#include "side.h"
#include "tensorflow_lite/c_api.h"

extern "C" TfLiteModel* TfLiteModelCreateFromFile(const char* path);

// Debian's build of the engine has none.
#pragma weak TfLiteXNNPackDelegateCreate
#pragma weak TfLiteXNNPackDelegateDelete

class ByHand {
 public:
  explicit ByHand(const Task& task)
      : model_(TfLiteModelCreateFromFile((task.name + ".tflite").c_str())) {
    TfLiteInterpreterOptions* const options = TfLiteInterpreterOptionsCreate();
    if (delegate_ != nullptr) {
      TfLiteInterpreterOptionsAddDelegate(options, delegate_);
    }
    interpreter_ = TfLiteInterpreterCreate(model_, options);
    TfLiteInterpreterOptionsDelete(options);
    TfLiteInterpreterAllocateTensors(interpreter_);
  }
  ByHand(const ByHand&) = delete;
  ByHand& operator=(const ByHand&) = delete;
  ~ByHand() {
    TfLiteInterpreterDelete(interpreter_);
    if (delegate_ != nullptr) {
      TfLiteXNNPackDelegateDelete(delegate_);
    }
    TfLiteModelDelete(model_);
  }

  std::vector<Output> Forward(const std::vector<cv::Mat>& images) {
    TfLiteTensor* const input = TfLiteInterpreterGetTensor(
        interpreter_, TfLiteInterpreterInputTensorIndices(interpreter_)[0]);
    const TfLiteTensor* const output = TfLiteInterpreterGetTensor(
        interpreter_, TfLiteInterpreterOutputTensorIndices(interpreter_)[0]);
    std::vector<Output> results;
    for (const cv::Mat& image : images) {
      std::memcpy(TfLiteTensorData(input), image.data, TfLiteTensorByteSize(input));
      TfLiteInterpreterInvoke(interpreter_);
      const auto* const values = static_cast<const float*>(TfLiteTensorData(output));
      results.push_back(
          {{"output", std::vector<float>(values, values + TfLiteTensorDim(output, 1))}});
    }
    return results;
  }

 private:
  TfLiteModel* model_;
  TfLiteDelegate* delegate_ =
      TfLiteXNNPackDelegateCreate != nullptr ? TfLiteXNNPackDelegateCreate(nullptr) : nullptr;
  TfLiteInterpreter* interpreter_;
};
