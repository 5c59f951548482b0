#pragma once

#include <velmora/plugin/export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::plugin::network {

/// Describes one model for all three engines, so that the same record can be passed to
/// CreateNetwork() on any machine. Nothing is validated here: each backend reads its own fields and
/// ignores the others. Paths are passed to the engines unchanged; relative ones are relative to the
/// working directory.
struct VELMORA_EXPORT NetworkConfig {
  NetworkConfig() = default;
  /// Copies all fields.
  NetworkConfig(const NetworkConfig& other);
  /// Copies all fields.
  NetworkConfig& operator=(const NetworkConfig& other) = default;
  ~NetworkConfig();

  /// Names of the network outputs to return, which are also the keys of the OutputMap. Used by
  /// DnnNetwork and IeNetwork; TfLiteNetwork always returns its first output as "output".
  std::vector<std::string> output_names;

  /// Allows the OpenCV dnn backend. Only CreateNetwork() reads the three enable_ flags.
  bool enable_dnn = false;

  /// A binary Caffe model with description and weights in one file. If it is set, the two files
  /// below are ignored.
  std::string dnn_binary_path;

  /// Caffe network description (text), used with dnn_caffemodel_path.
  std::string dnn_prototxt_path;
  /// Caffe weights (binary).
  std::string dnn_caffemodel_path;

  /// Allows the Inference Engine backend.
  bool enable_ie = false;

  /// Inference Engine model for the CPU: description (.xml). Every IeNetwork needs the two CPU
  /// files, because it falls back to the CPU.
  std::string ie_cpu_xml_path;
  /// Weights (.bin) of ie_cpu_xml_path.
  std::string ie_cpu_bin_path;

  /// Inference Engine model for the GPU: description (.xml). The GPU is used only if this and
  /// ie_gpu_bin_path are set.
  std::string ie_gpu_xml_path;
  /// Weights (.bin) of ie_gpu_xml_path.
  std::string ie_gpu_bin_path;

  /// Allows the TensorFlow Lite backend.
  bool enable_tflite = false;

  /// TensorFlow Lite model (.tflite).
  std::string tflite_model_path;

  /// Width in pixels to which an IeNetwork reshapes its input, together with input_height. If
  /// either is 0, the model keeps its own size.
  std::uint32_t input_width = 0;
  /// Height in pixels; see input_width.
  std::uint32_t input_height = 0;

  /// Number of images per inference of an IeNetwork, which needs at least 1.
  std::uint32_t batch_size = 0;
};

}  // namespace velmora::plugin::network
