#include "inputs.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "common.h"
#include "opencv/caffe_model.h"
#if VELMORA_HAS_INFERENCE_ENGINE
#include <inference_engine.hpp>
#endif
#if VELMORA_HAS_TENSORFLOW_LITE
#include <model_format_generated.h>
#endif

namespace velmora::tool {

namespace {

using plugin::network::NetworkConfig;

/// Of a shape N x C x H x W, or with the channels last.
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

}  // namespace

InputShape DnnInput(const NetworkConfig& config) {
  using namespace plugin::network::compat;
  return ShapeOf(config.dnn_binary_path.empty() ? InputOfCaffePair(config.dnn_prototxt_path)
                                                : InputOfCaffeBinary(config.dnn_binary_path),
                 false);
}

InputShape IeInput([[maybe_unused]] const NetworkConfig& config) {
#if VELMORA_HAS_INFERENCE_ENGINE
  const auto shapes = InferenceEngine::Core("")
                          .ReadNetwork(config.ie_cpu_xml_path, config.ie_cpu_bin_path)
                          .getInputShapes();
  InferenceEngine::SizeVector shape =
      shapes.empty() ? InferenceEngine::SizeVector() : shapes.begin()->second;
  if (shape.size() >= 4 && config.input_width != 0 && config.input_height != 0) {
    shape[2] = config.input_height;
    shape[3] = config.input_width;
  }
  return ShapeOf(shape, false);
#else
  return {};
#endif
}

InputShape TfLiteInput([[maybe_unused]] const NetworkConfig& config) {
#if VELMORA_HAS_TENSORFLOW_LITE
  namespace format = plugin::network::compat::format;
  const std::string file = ReadFile(config.tflite_model_path);
  flatbuffers::Verifier verifier(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  if (!format::VerifyModelBuffer(verifier)) {
    return {};
  }
  const format::SubGraph& graph = *format::GetModel(file.data())->subgraphs()->Get(0);
  const auto* const inputs = graph.inputs();
  if (inputs == nullptr || inputs->size() == 0 || inputs->Get(0) < 0) {
    return {};
  }
  const auto* const shape = graph.tensors()->Get(static_cast<unsigned>(inputs->Get(0)))->shape();
  return shape == nullptr ? InputShape() : ShapeOf(*shape, true);
#else
  return {};
#endif
}

}  // namespace velmora::tool
