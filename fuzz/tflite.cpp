// A TensorFlow Lite model that the engine's own verifier lets through, to the second verifier,
// which must find its way in whatever the first accepts; what both accept is loaded and run.
#include <tensorflow/lite/kernels/register.h>
#include <tensorflow/lite/model.h>

#include <cstring>
#include <memory>

#include "support.h"
#include "tensorflow_lite/graph_verifier.h"

namespace {

/// Whether a model has tensors of few values, as the file states them, and no large numbers that an
/// operator could make others of.
bool IsSmall(const char* bytes) {
  using namespace velmora::plugin::network::compat;
  std::unique_ptr<format::ModelT> model(format::GetModel(bytes)->UnPack());
  double values = 0;
  for (const auto& graph : model->subgraphs) {
    for (const auto& tensor : graph->tensors) {
      if (tensor->buffer >= model->buffers.size()) {
        return false;
      }
      double product = 1;
      for (const std::int32_t size : tensor->shape) {
        product *= size;
      }
      values += product;
      const auto& bytes_of = model->buffers[tensor->buffer]->data;
      if (tensor->type == format::TensorType::INT32 || tensor->type == format::TensorType::INT64) {
        const std::size_t step = tensor->type == format::TensorType::INT32 ? 4 : 8;
        for (std::size_t i = 0; i + step <= bytes_of.size(); i += step) {
          std::int32_t number = 0;
          std::memcpy(&number, bytes_of.data() + i, sizeof number);
          values += number > 32 ? 1e6 : 0;
        }
      }
    }
  }
  return values < 1e6;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace velmora::plugin::network;
  static const velmora::fuzz::MemoryFile file;
  file.Set(data, size);
  struct Note : compat::GraphVerifier {
    bool Verify(const char* bytes, int length, tflite::ErrorReporter* reporter) override {
      const bool is_sound = compat::GraphVerifier::Verify(bytes, length, reporter);
      velmora::fuzz::NoteOutcome(is_sound ? 1 : 2);
      return is_sound && IsSmall(bytes);
    }
  } verifier;
  const auto model = tflite::FlatBufferModel::VerifyAndBuildFromFile(
      file.path().c_str(), &verifier, tflite::DefaultErrorReporter());
  std::unique_ptr<tflite::Interpreter> interpreter;
  if (model) {
    const tflite::ops::builtin::BuiltinOpResolver resolver;
    tflite::InterpreterBuilder(*model, resolver, nullptr)(&interpreter);
  }
  if (interpreter && interpreter->AllocateTensors() == kTfLiteOk) {
    velmora::fuzz::NoteOutcome(3 + (interpreter->Invoke() == kTfLiteOk ? 1 : 0));
  }
  velmora::fuzz::TakeLogLines();
  return 0;
}
