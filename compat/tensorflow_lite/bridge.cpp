#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <tensorflow/lite/model.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tensorflow_lite/c_api.h"
#include "tensorflow_lite/xnnpack_graph.h"

namespace velmora::plugin::network::tflite {

namespace {

constexpr int kPriority = LOG_LOCAL1 | LOG_INFO;  // as in src/network/log.cpp

class LogReporter : public ErrorReporter {
 public:
  int Report(const char* format, va_list arguments) override {
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    if (length < 0) {
      return length;  // out of memory
    }
    // Some of the engine's texts end with a newline, and some have several lines.
    char* end = text + length;
    while (end != text && end[-1] == '\n') {
      --end;
    }
    *end = '\0';
    std::replace(text, end, '\n', ' ');
    syslog(kPriority, "%s:%d [TfLiteNetwork] TensorFlow Lite: %s", __FILE__, __LINE__, text);
    std::free(text);
    return length;
  }
};

void Report(void* reporter, const char* format, va_list arguments) {
  static_cast<ErrorReporter*>(reporter)->Report(format, arguments);
}

/// data() is null if the file cannot be mapped.
class MappedFile {
 public:
  explicit MappedFile(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (fd >= 0 && fstat(fd, &status) == 0 && status.st_size > 0) {
      size_ = static_cast<std::size_t>(status.st_size);
      data_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
    }
    if (fd >= 0) {
      close(fd);
    }
  }
  MappedFile(MappedFile&& other) noexcept
      : size_(other.size_), data_(std::exchange(other.data_, MAP_FAILED)) {}
  MappedFile& operator=(MappedFile&&) = delete;
  ~MappedFile() {
    if (data() != nullptr) {
      munmap(data_, size_);
    }
  }
  const char* data() const {
    return data_ == MAP_FAILED ? nullptr : static_cast<const char*>(data_);
  }
  std::size_t size() const { return size_; }

 private:
  std::size_t size_ = 0;
  void* data_ = MAP_FAILED;
};

struct Delete {
  void operator()(TfLiteModel* model) const { TfLiteModelDelete(model); }
  void operator()(TfLiteInterpreterOptions* options) const {
    TfLiteInterpreterOptionsDelete(options);
  }
  void operator()(TfLiteDelegate* delegate) const { TfLiteXNNPackDelegateDelete(delegate); }
  void operator()(TfLiteInterpreter* interpreter) const { TfLiteInterpreterDelete(interpreter); }
};

/// The delegate that BuiltinOpResolver adds in the C++ API, with its defaults.
std::unique_ptr<TfLiteDelegate, Delete> MakeDelegate() {
  // The engine announces the first delegate on standard error, where a library must not write.
  [[maybe_unused]] static const bool announced = [] {
    const int before = ::tflite::LoggerOptions::SetMinimumLogSeverity(2);
    TfLiteXNNPackDelegateDelete(TfLiteXNNPackDelegateCreate(nullptr));
    ::tflite::LoggerOptions::SetMinimumLogSeverity(before);
    return true;
  }();
  return std::unique_ptr<TfLiteDelegate, Delete>(TfLiteXNNPackDelegateCreate(nullptr));
}

}  // namespace

// NOLINTNEXTLINE(cert-dcl50-cpp): as in the engine
int ErrorReporter::Report(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = Report(format, arguments);
  va_end(arguments);
  return length;
}

ErrorReporter* DefaultErrorReporter() {
  static LogReporter reporter;
  return &reporter;
}

struct FlatBufferModel::Impl {
  MappedFile file;  // used by the model, so destroyed last
  std::unique_ptr<TfLiteModel, Delete> model;
  ErrorReporter* reporter;
};

FlatBufferModel::FlatBufferModel(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
FlatBufferModel::~FlatBufferModel() = default;

std::unique_ptr<FlatBufferModel> FlatBufferModel::VerifyAndBuildFromFile(
    const char* path, TfLiteVerifier* extra_verifier, ErrorReporter* reporter) {
  // Mapped here, so that both verifiers check what the engine uses, whatever happens to the file.
  MappedFile file(path);
  if (file.data() == nullptr) {
    reporter->Report("Cannot read %s", path);
    return nullptr;
  }
  std::unique_ptr<TfLiteModel, Delete> model(
      TfLiteModelCreateWithErrorReporter(file.data(), file.size(), Report, reporter));
  // What lies beyond the greatest int can only be values, which follow the tables.
  const int length = static_cast<int>(std::min<std::size_t>(file.size(), INT_MAX));
  if (!model || !extra_verifier->Verify(file.data(), length, reporter)) {
    return nullptr;
  }
  return std::make_unique<FlatBufferModel>(
      std::make_unique<Impl>(Impl{std::move(file), std::move(model), reporter}));
}

struct Interpreter::Impl {
  const TfLiteModel* model;
  ErrorReporter* reporter;
  std::unique_ptr<TfLiteDelegate, Delete> delegate;
  std::unique_ptr<TfLiteInterpreter, Delete> interpreter;  // uses the delegate, so destroyed first
  bool is_trying = false;  // trying the delegate; if it fails, that is no error

  bool Build() {
    const std::unique_ptr<TfLiteInterpreterOptions, Delete> options(
        TfLiteInterpreterOptionsCreate());
    TfLiteInterpreterOptionsSetErrorReporter(
        options.get(),
        [](void* self, const char* format, va_list arguments) {
          if (!static_cast<Impl*>(self)->is_trying) {
            Report(static_cast<Impl*>(self)->reporter, format, arguments);
          }
        },
        this);
    is_trying = delegate != nullptr;
    if (is_trying) {
      TfLiteInterpreterOptionsAddDelegate(options.get(), delegate.get());
    }
    interpreter.reset(TfLiteInterpreterCreate(model, options.get()));
    return interpreter != nullptr;
  }

  /// Builds again after the delegate has failed. Returns false if there was no delegate.
  bool BuildWithoutDelegate() {
    if (!delegate) {
      return false;
    }
    interpreter.reset();
    delegate.reset();
    return Build();
  }
};

Interpreter::Interpreter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {
  const TfLiteInterpreter* const engine = impl_->interpreter.get();
  const int* const inputs = TfLiteInterpreterInputTensorIndices(engine);
  inputs_.assign(inputs, inputs + TfLiteInterpreterGetInputTensorCount(engine));
  const int* const outputs = TfLiteInterpreterOutputTensorIndices(engine);
  outputs_.assign(outputs, outputs + TfLiteInterpreterGetOutputTensorCount(engine));
  for (int i = 0; TfLiteInterpreterGetTensor(engine, i) != nullptr; ++i) {
    tensors_.emplace_back();
  }
}

Interpreter::~Interpreter() = default;

TfLiteStatus Interpreter::AllocateTensors() {
  int status = TfLiteInterpreterAllocateTensors(impl_->interpreter.get());
  if (status != kTfLiteOk && impl_->BuildWithoutDelegate()) {
    status = TfLiteInterpreterAllocateTensors(impl_->interpreter.get());
  }
  impl_->is_trying = false;
  return static_cast<TfLiteStatus>(status);
}

TfLiteStatus Interpreter::Invoke() {
  return static_cast<TfLiteStatus>(TfLiteInterpreterInvoke(impl_->interpreter.get()));
}

const TfLiteTensor* Interpreter::tensor(int index) {
  const ::TfLiteTensor* const source = TfLiteInterpreterGetTensor(impl_->interpreter.get(), index);
  auto& [tensor, dims] = tensors_[static_cast<std::size_t>(index)];
  dims.size = TfLiteTensorNumDims(source);
  dims.data.clear();
  for (int i = 0; i < dims.size; ++i) {
    dims.data.push_back(TfLiteTensorDim(source, i));
  }
  tensor.type = static_cast<TfLiteType>(TfLiteTensorType(source));
  tensor.dims = &dims;
  tensor.bytes = TfLiteTensorByteSize(source);
  return &tensor;
}

template <>
float* Interpreter::typed_tensor<float>(int index) {
  const ::TfLiteTensor* const tensor = TfLiteInterpreterGetTensor(impl_->interpreter.get(), index);
  return TfLiteTensorType(tensor) == kTfLiteFloat32 ? static_cast<float*>(TfLiteTensorData(tensor))
                                                    : nullptr;
}

InterpreterBuilder::InterpreterBuilder(const FlatBufferModel& model, const OpResolver& /*resolver*/,
                                       std::nullptr_t /*options*/)
    : model_(model) {}

TfLiteStatus InterpreterBuilder::operator()(std::unique_ptr<Interpreter>* interpreter) {
  const auto& [file, model, reporter] = model_.impl();
  auto impl = std::make_unique<Interpreter::Impl>(
      model.get(), reporter, guards::IsGraphForXnnpack(file.data()) ? MakeDelegate() : nullptr);
  if (!impl->Build() && !impl->BuildWithoutDelegate()) {
    interpreter->reset();
    return static_cast<TfLiteStatus>(1);
  }
  *interpreter = std::make_unique<Interpreter>(std::move(impl));
  return kTfLiteOk;
}

}  // namespace velmora::plugin::network::tflite
