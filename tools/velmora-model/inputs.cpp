#include "inputs.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <numeric>
#include <opencv2/dnn.hpp>
#include <string>

#include "caffe/caffe_model.h"
#include "errors.h"
#include "files.h"
#if VELMORA_HAS_INFERENCE_ENGINE
#include <inference_engine.hpp>
#endif
#if VELMORA_HAS_TENSORFLOW_LITE
#include <model_format_generated.h>
#include <tensorflow/lite/kernels/register.h>
#include <tensorflow/lite/model.h>

#include "tensorflow_lite/graph_verifier.h"
#endif

namespace velmora::tool {

namespace {

using plugin::network::NetworkConfig;

/// From N x C x H x W, or N x H x W x C.
template <typename Sizes>
InputShape ShapeOf(const Sizes& sizes, bool channels_last) {
  if (sizes.size() < 4) {
    return {};
  }
  const auto size = [&](unsigned axis) {
    const auto value = static_cast<std::int64_t>(sizes[axis]);
    return value > 0 && value <= std::numeric_limits<int>::max() ? static_cast<int>(value) : 0;
  };
  return channels_last ? InputShape{size(2), size(1), size(3)}
                       : InputShape{size(3), size(2), size(1)};
}

#if VELMORA_HAS_INFERENCE_ENGINE
/// Does what the backend does.
InferenceEngine::CNNNetwork ReadIeNetwork(InferenceEngine::Core core, const NetworkConfig& config) {
  auto network = core.ReadNetwork(config.ie_cpu_xml_path, config.ie_cpu_bin_path);
  network.setBatchSize(config.batch_size);
  auto shapes = network.getInputShapes();
  if (config.input_width != 0 && config.input_height != 0 && !shapes.empty() &&
      shapes.begin()->second.size() >= 4) {
    shapes.begin()->second[2] = config.input_height;
    shapes.begin()->second[3] = config.input_width;
    network.reshape(shapes);
  }
  return network;
}
#endif

#if VELMORA_HAS_TENSORFLOW_LITE
using namespace plugin::network;  // where a bridge has the engine's names

/// Collects what the engine reports.
class Words : public tflite::ErrorReporter {
 public:
  using tflite::ErrorReporter::Report;
  int Report(const char* format, va_list arguments) override {
    char text[1024];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    said_ += length > 0 ? std::string(text) + "\n" : "";
    return length;
  }
  const std::string& said() const { return said_; }

 private:
  std::string said_;
};

namespace format = guards::format;

/// The shape of the model's first input or output; empty where there is none.
template <typename List>
std::vector<int> FirstTensor(const NetworkConfig& config, List list) {
  const std::string file = ReadFile(config.tflite_model_path);
  flatbuffers::Verifier verifier(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  if (!format::VerifyModelBuffer(verifier)) {
    return {};
  }
  const format::SubGraph& graph = *format::GetModel(file.data())->subgraphs()->Get(0);
  const auto* const tensors = (graph.*list)();
  if (tensors == nullptr || tensors->size() == 0 || tensors->Get(0) < 0) {
    return {};
  }
  const auto* const shape = graph.tensors()->Get(static_cast<unsigned>(tensors->Get(0)))->shape();
  return shape == nullptr ? std::vector<int>() : std::vector<int>(shape->begin(), shape->end());
}
#endif

}  // namespace

InputShape DnnInput(const NetworkConfig& config) {
  using namespace plugin::network::guards;
  return ShapeOf(config.dnn_binary_path.empty() ? InputOfCaffePair(config.dnn_prototxt_path)
                                                : InputOfCaffeBinary(config.dnn_binary_path),
                 false);
}

InputShape IeInput([[maybe_unused]] const NetworkConfig& config) {
#if VELMORA_HAS_INFERENCE_ENGINE
  const auto shapes = ReadIeNetwork(InferenceEngine::Core(""), config).getInputShapes();
  return shapes.empty() ? InputShape() : ShapeOf(shapes.begin()->second, false);
#else
  return {};
#endif
}

InputShape TfLiteInput([[maybe_unused]] const NetworkConfig& config) {
#if VELMORA_HAS_TENSORFLOW_LITE
  return ShapeOf(FirstTensor(config, &format::SubGraph::inputs), true);
#else
  return {};
#endif
}

std::string DnnReason(const NetworkConfig& config) {
  using namespace plugin::network::guards;
  return config.dnn_binary_path.empty()
             ? RefusalOfCaffePair(config.dnn_prototxt_path, config.dnn_caffemodel_path)
             : RefusalOfCaffeBinary(config.dnn_binary_path);
}

std::string IeReason([[maybe_unused]] const NetworkConfig& config,
                     [[maybe_unused]] const std::string& device) {
#if VELMORA_HAS_INFERENCE_ENGINE
  std::string outputs;
  try {
    InferenceEngine::Core core("");
    const auto network = ReadIeNetwork(core, config);
    auto request = core.LoadNetwork(network, device, {}).CreateInferRequest();
    for (const auto& [name, output] : network.getOutputsInfo()) {
      outputs += (outputs.empty() ? "the outputs are \"" : "\", \"") + name;
    }
    for (const std::string& name : config.output_names) {
      request.GetBlob(name);
    }
    return "";
  } catch (...) {
    return outputs.empty() ? CurrentError() : outputs + "\"";
  }
#else
  return "";
#endif
}

std::string TfLiteReason([[maybe_unused]] const NetworkConfig& config) {
#if VELMORA_HAS_TENSORFLOW_LITE
  Words words;
  compat::GraphVerifier verifier;
  const auto model = tflite::FlatBufferModel::VerifyAndBuildFromFile(
      config.tflite_model_path.c_str(), &verifier, &words);
  if (model != nullptr) {
    std::unique_ptr<tflite::Interpreter> interpreter;
    const tflite::ops::builtin::BuiltinOpResolver resolver;
    tflite::InterpreterBuilder(*model, resolver, nullptr)(&interpreter);
    if (interpreter != nullptr && interpreter->AllocateTensors() == kTfLiteOk) {
      interpreter->Invoke();
    }
  }
  return Squeeze(words.said());
#else
  return "";
#endif
}

std::size_t Product(const std::vector<std::size_t>& shape) {
  return std::accumulate(shape.begin(), shape.end(), std::size_t{1}, std::multiplies<>());
}

ShapeReader DnnOutputs(const NetworkConfig& config) {
  namespace engine = plugin::network;
  return [config, net = engine::cv::dnn::Net()](const cv::Mat& image) mutable {
    if (net.empty()) {
      net = engine::cv::dnn::Net(
          config.dnn_binary_path.empty()
              ? engine::guards::ReadCaffePair(config.dnn_prototxt_path, config.dnn_caffemodel_path)
              : engine::guards::ReadCaffeBinary(config.dnn_binary_path));
    }
    net.setBlob(".data", engine::cv::dnn::Blob::fromImages(image));
    net.forward();
    OutputShapes shapes;
    for (const std::string& name : config.output_names) {
      const engine::cv::dnn::Blob blob = net.getBlob(name);
      blob.updateMat();
      const cv::MatSize& sizes = blob.matRefConst().size;
      shapes[name].assign(sizes.p, sizes.p + sizes.dims());
    }
    return shapes;
  };
}

ShapeReader IeOutputs([[maybe_unused]] const NetworkConfig& config) {
  OutputShapes shapes;
#if VELMORA_HAS_INFERENCE_ENGINE
  InferenceEngine::Core core("");
  auto request = core.LoadNetwork(ReadIeNetwork(core, config), "CPU", {}).CreateInferRequest();
  for (const std::string& name : config.output_names) {
    shapes[name] = request.GetBlob(name)->getTensorDesc().getDims();
    if (!shapes[name].empty()) {
      shapes[name][0] /= config.batch_size;  // as the library cuts a batch's values
    }
  }
#endif
  return [shapes](const cv::Mat&) { return shapes; };
}

ShapeReader TfLiteOutputs([[maybe_unused]] const NetworkConfig& config) {
  OutputShapes shapes;
#if VELMORA_HAS_TENSORFLOW_LITE
  const std::vector<int> shape = FirstTensor(config, &format::SubGraph::outputs);
  if (std::all_of(shape.begin(), shape.end(), [](int size) { return size >= 0; })) {
    shapes["output"].assign(shape.begin(), shape.end());
  }
#endif
  return [shapes](const cv::Mat&) { return shapes; };
}

}  // namespace velmora::tool
