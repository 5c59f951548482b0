// TensorFlow Lite's C++ API, over the C API of a library that comes without headers (2.20). Only
// the names that src/network/ uses. Where the C++ headers and library are, this is not compiled.
//
// The names stand in the library's own namespace: the C API's library exports the C++ classes too,
// and these must not be taken for them.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <vector>

namespace velmora::plugin::network {

enum TfLiteStatus { kTfLiteOk = 0 };  // all others are failures

enum TfLiteType { kTfLiteFloat32 = 1 };

struct TfLiteIntArray {
  int size = 0;
  std::vector<int> data;
};

/// What the engine says of a tensor at this moment: an output may get its size in a run only.
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

/// Writes to the log, a line for each report: a library has no standard error of its own.
ErrorReporter* DefaultErrorReporter();

/// A second opinion on a file that the engine has verified.
class TfLiteVerifier {
 public:
  virtual ~TfLiteVerifier() = default;
  virtual bool Verify(const char* data, int length, ErrorReporter* reporter) = 0;
};

class FlatBufferModel {
 public:
  /// Null when the file cannot be read, is no valid model, or is not to the verifier's liking.
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

/// Stands for the one set of operators that the C API has.
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
  std::size_t tensors_size() const { return tensors_.size(); }

  /// Valid until the tensor is asked for again.
  const TfLiteTensor* tensor(int index);

  /// Null unless the tensor's type is T; float is the only one here.
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
  /// The options must be null: there is no type for them here.
  InterpreterBuilder(const FlatBufferModel& model, const OpResolver& resolver,
                     std::nullptr_t options);

  /// Leaves null behind when the interpreter cannot be built.
  TfLiteStatus operator()(std::unique_ptr<Interpreter>* interpreter);

 private:
  const FlatBufferModel& model_;
};

}  // namespace tflite
}  // namespace velmora::plugin::network
