// TensorFlow Lite's C++ API, implemented with the C API of a library that comes without headers
// (2.20). Contains only what src/network/ uses. Not compiled where the C++ headers and library are
// found. The names are in the library's own namespace, because the C API's library exports the C++
// classes as well, and the two must not be confused.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <vector>

namespace velmora::plugin::network {

enum TfLiteStatus { kTfLiteOk = 0 };  // all other values are failures

enum TfLiteType { kTfLiteFloat32 = 1 };

struct TfLiteIntArray {
  int size = 0;
  std::vector<int> data;
};

/// The current state of a tensor: an output may only get its size in a run.
struct TfLiteTensor {
  TfLiteType type = {};
  const TfLiteIntArray* dims = nullptr;
  std::size_t bytes = 0;
};

namespace tflite {

class ErrorReporter {
 public:
  virtual ~ErrorReporter() = default;
  virtual int Report(const char* format, va_list arguments) = 0;
  int Report(const char* format, ...);
};

/// Writes each report to the log as one line, because a library must not write to standard error.
ErrorReporter* DefaultErrorReporter();

/// Another check of a file that the engine has verified.
class TfLiteVerifier {
 public:
  virtual ~TfLiteVerifier() = default;
  virtual bool Verify(const char* data, int length, ErrorReporter* reporter) = 0;
};

class FlatBufferModel {
 public:
  /// Returns null if the file cannot be read, is not a valid model, or is refused by the verifier.
  static std::unique_ptr<FlatBufferModel> VerifyAndBuildFromFile(const char* path,
                                                                 TfLiteVerifier* extra_verifier,
                                                                 ErrorReporter* reporter);

  struct Impl;
  explicit FlatBufferModel(std::unique_ptr<Impl> impl);
  ~FlatBufferModel();
  const Impl& impl() const { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

/// Stands for the only set of operators that the C API has.
class OpResolver {};
namespace ops::builtin {
class BuiltinOpResolver : public OpResolver {};
}  // namespace ops::builtin

class Interpreter {
 public:
  struct Impl;
  explicit Interpreter(std::unique_ptr<Impl> impl);
  ~Interpreter();

  TfLiteStatus AllocateTensors();
  TfLiteStatus Invoke();
  const std::vector<int>& inputs() const { return inputs_; }
  const std::vector<int>& outputs() const { return outputs_; }

  /// Valid until the next call for the same tensor.
  const TfLiteTensor* tensor(int index);

  /// Returns null unless the tensor's type is T, which can only be float here.
  template <typename T>
  T* typed_tensor(int index);
  template <typename T>
  T* typed_output_tensor(int output) {
    return typed_tensor<T>(outputs_[static_cast<std::size_t>(output)]);
  }

 private:
  struct Tensor {
    TfLiteTensor tensor;
    TfLiteIntArray dims;
  };

  std::unique_ptr<Impl> impl_;
  std::vector<int> inputs_;
  std::vector<int> outputs_;
  std::vector<Tensor> tensors_;
};

template <>
float* Interpreter::typed_tensor<float>(int index);

class InterpreterBuilder {
 public:
  /// The options must be null, because they have no type here.
  InterpreterBuilder(const FlatBufferModel& model, const OpResolver& resolver,
                     std::nullptr_t options);

  /// Sets the pointer to null if the interpreter cannot be built.
  TfLiteStatus operator()(std::unique_ptr<Interpreter>* interpreter);

 private:
  const FlatBufferModel& model_;
};

}  // namespace tflite
}  // namespace velmora::plugin::network
