// What TfLiteNetwork does, written by hand on the engine's own C API.
#pragma once

#include <cstring>
#include <opencv2/core.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "side.h"
#include "tensorflow_lite/c_api.h"

extern "C" TfLiteModel* TfLiteModelCreateFromFileWithErrorReporter(const char* path,
                                                                   TfLiteReport report,
                                                                   void* user_data);

// Debian's build of the engine has none.
#pragma weak TfLiteXNNPackDelegateCreate
#pragma weak TfLiteXNNPackDelegateDelete

inline void Ignore(void* /*user_data*/, const char* /*format*/, va_list /*arguments*/) {}

class ByHand {
 public:
  explicit ByHand(const Task& task)
      : model_(TfLiteModelCreateFromFileWithErrorReporter(
            (std::string(task.name) + ".tflite").c_str(), Ignore, nullptr)) {
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

  std::vector<std::unordered_map<std::string, std::vector<float>>> Forward(
      const std::vector<cv::Mat>& images) {
    std::vector<std::unordered_map<std::string, std::vector<float>>> results;
    for (const cv::Mat& image : images) {
      results.push_back({{"output", Run(image)}});
    }
    return results;
  }

 private:
  std::vector<float> Run(const cv::Mat& image) {
    TfLiteTensor* const input = TfLiteInterpreterGetTensor(
        interpreter_, TfLiteInterpreterInputTensorIndices(interpreter_)[0]);
    std::memcpy(TfLiteTensorData(input), image.data, TfLiteTensorByteSize(input));
    TfLiteInterpreterInvoke(interpreter_);
    const TfLiteTensor* const output = TfLiteInterpreterGetTensor(
        interpreter_, TfLiteInterpreterOutputTensorIndices(interpreter_)[0]);
    const auto* const values = static_cast<const float*>(TfLiteTensorData(output));
    return {values, values + TfLiteTensorDim(output, 1)};
  }

  TfLiteModel* model_;
  TfLiteDelegate* delegate_ =
      TfLiteXNNPackDelegateCreate != nullptr ? TfLiteXNNPackDelegateCreate(nullptr) : nullptr;
  TfLiteInterpreter* interpreter_;
};
