// The part of TensorFlow Lite's C API that is used, the same since 2.3. No package has headers.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

extern "C" {
struct TfLiteModel;
struct TfLiteInterpreterOptions;
struct TfLiteInterpreter;
struct TfLiteTensor;
struct TfLiteDelegate;
using TfLiteReport = void (*)(void* user_data, const char* format, va_list arguments);
/// Returns null if the engine's verifier rejects the data, which is not copied.
TfLiteModel* TfLiteModelCreateWithErrorReporter(const void* data, std::size_t size,
                                                TfLiteReport report, void* user_data);
void TfLiteModelDelete(TfLiteModel* model);
TfLiteInterpreterOptions* TfLiteInterpreterOptionsCreate();
void TfLiteInterpreterOptionsDelete(TfLiteInterpreterOptions* options);
void TfLiteInterpreterOptionsSetErrorReporter(TfLiteInterpreterOptions* options,
                                              TfLiteReport report, void* user_data);
/// The delegate belongs to the caller and must outlive all interpreters made with the options.
void TfLiteInterpreterOptionsAddDelegate(TfLiteInterpreterOptions* options,
                                         TfLiteDelegate* delegate);
/// Creates an XNNPACK delegate. Null options are the defaults, which include a single thread.
TfLiteDelegate* TfLiteXNNPackDelegateCreate(const void* options);
void TfLiteXNNPackDelegateDelete(TfLiteDelegate* delegate);
TfLiteInterpreter* TfLiteInterpreterCreate(const TfLiteModel* model,
                                           const TfLiteInterpreterOptions* options);
void TfLiteInterpreterDelete(TfLiteInterpreter* interpreter);
int TfLiteInterpreterAllocateTensors(TfLiteInterpreter* interpreter);
int TfLiteInterpreterInvoke(TfLiteInterpreter* interpreter);
std::int32_t TfLiteInterpreterGetInputTensorCount(const TfLiteInterpreter* interpreter);
std::int32_t TfLiteInterpreterGetOutputTensorCount(const TfLiteInterpreter* interpreter);
const int* TfLiteInterpreterInputTensorIndices(const TfLiteInterpreter* interpreter);
const int* TfLiteInterpreterOutputTensorIndices(const TfLiteInterpreter* interpreter);
TfLiteTensor* TfLiteInterpreterGetTensor(const TfLiteInterpreter* interpreter, int index);
int TfLiteTensorType(const TfLiteTensor* tensor);
std::int32_t TfLiteTensorNumDims(const TfLiteTensor* tensor);
std::int32_t TfLiteTensorDim(const TfLiteTensor* tensor, std::int32_t index);
std::size_t TfLiteTensorByteSize(const TfLiteTensor* tensor);
void* TfLiteTensorData(const TfLiteTensor* tensor);
}

namespace tflite {
/// How much the engine writes to standard error without a reporter. The C API has no function for
/// it. 1 is information, which is the default, and 2 is warnings.
class LoggerOptions {
 public:
  static int SetMinimumLogSeverity(int severity) asm(
      "_ZN6tflite13LoggerOptions21SetMinimumLogSeverityENS_11LogSeverityE");
};
}  // namespace tflite
