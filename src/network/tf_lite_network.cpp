#include <tensorflow/lite/kernels/register.h>
#include <tensorflow/lite/model.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "network/log.h"
#include "tensorflow_lite/graph_verifier.h"

namespace velmora::plugin::network {

struct TfLiteNetwork::Engine {
  std::unique_ptr<tflite::FlatBufferModel> model;
  std::unique_ptr<tflite::Interpreter> interpreter;  // uses the model, so destroyed first
};

TfLiteNetwork::TfLiteNetwork(NetworkConfig config)
    : BaseNetwork(config), engine_(std::make_unique<Engine>()) {
  tflite::ErrorReporter* const reporter = tflite::DefaultErrorReporter();
  // The engine would block forever on a FIFO.
  std::error_code error;
  if (!std::filesystem::is_regular_file(config_.tflite_model_path, error)) {
    reporter->Report("Cannot read %s", config_.tflite_model_path.c_str());
    throw Exception("Failed to load model");
  }
  // Verified, because the engine trusts the offsets in a file and would read wherever they point.
  compat::GraphVerifier verifier;
  engine_->model = tflite::FlatBufferModel::VerifyAndBuildFromFile(
      config_.tflite_model_path.c_str(), &verifier, reporter);
  if (!engine_->model) {
    throw Exception("Failed to load model");
  }
  const tflite::ops::builtin::BuiltinOpResolver resolver;
  tflite::InterpreterBuilder(*engine_->model, resolver, nullptr)(&engine_->interpreter);
  if (!engine_->interpreter) {
    throw Exception("Failed to build interpreter");
  }
  if (engine_->interpreter->AllocateTensors() != kTfLiteOk) {
    throw Exception("Failed to allocate tensors");
  }
  LogInfo("[TfLiteNetwork] Init network");
}

TfLiteNetwork::~TfLiteNetwork() = default;

OutputMap TfLiteNetwork::Forward(const cv::Mat& input) {
  tflite::Interpreter& interpreter = *engine_->interpreter;
  if (interpreter.inputs().empty() || interpreter.inputs()[0] < 0) {
    throw Exception("Image does not fit the input tensor");
  }
  if (interpreter.outputs().empty()) {
    throw Exception("Output tensor is not readable");
  }
  const int input_index = interpreter.inputs()[0];
  const int output_index = interpreter.outputs()[0];

  // Always a single image, whatever dims[0] says.
  const TfLiteTensor* const input_tensor = interpreter.tensor(input_index);
  const auto* const dims = input_tensor->dims;
  auto* const destination = interpreter.typed_tensor<float>(input_index);
  if (dims->size < 4 || destination == nullptr) {
    throw Exception("Image does not fit the input tensor");
  }
  const std::size_t size = std::size_t{4} * static_cast<std::uint32_t>(dims->data[1]) *
                           static_cast<std::uint32_t>(dims->data[2]) *
                           static_cast<std::uint32_t>(dims->data[3]);
  if (input.depth() != CV_32F || !input.isContinuous() || size > input_tensor->bytes ||
      size > input.total() * input.elemSize()) {
    throw Exception("Image does not fit the input tensor");
  }
  std::memcpy(destination, input.data, size);

  if (interpreter.Invoke() != kTfLiteOk) {
    throw Exception("Failed to invoke interpreter");
  }

  const TfLiteTensor* const output_tensor = interpreter.tensor(output_index);
  const auto* const source = interpreter.typed_output_tensor<float>(0);
  if (output_tensor->dims->size < 2) {
    throw Exception("Output tensor is not readable");
  }
  const auto length = static_cast<std::uint32_t>(output_tensor->dims->data[1]);
  if (length != 0 && (source == nullptr || std::size_t{4} * length > output_tensor->bytes)) {
    throw Exception("Output tensor is not readable");
  }
  OutputMap result;
  result["output"] = std::vector<float>(source, source + length);
  return result;
}

std::vector<OutputMap> TfLiteNetwork::Forward(const std::vector<cv::Mat>& inputs) {
  std::vector<OutputMap> results(inputs.size());
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    results[i] = Forward(inputs[i]);
  }
  return results;
}

void TfLiteNetwork::ForwardAsync(const cv::Mat& /*image*/) {}

OutputMap TfLiteNetwork::WaitOutput() { return {}; }

}  // namespace velmora::plugin::network
