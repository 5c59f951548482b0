#pragma once

#include <velmora/plugin/export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::plugin::network {

/// Describes one model for all three engines at once, so that the same record can be handed to
/// CreateNetwork() on any machine. A plain record: nothing is checked here; each backend reads its
/// own fields and ignores the others. Paths are passed to the engines as they are, so a relative
/// one is relative to the process's working directory.
struct VELMORA_EXPORT NetworkConfig {
  /// Nothing enabled, no files, all numbers 0.
  NetworkConfig() = default;

  /// Copies every field.
  NetworkConfig(const NetworkConfig& other);

  /// Copies every field.
  NetworkConfig& operator=(const NetworkConfig& other) = default;

  ~NetworkConfig();

  /// Names of the network outputs to collect, in the order in which they are read; they are the
  /// keys of the OutputMap. Read by DnnNetwork and IeNetwork; TfLiteNetwork always returns its
  /// first output as "output".
  std::vector<std::string> output_names;

  /// The OpenCV dnn backend may be used. The three enable_ flags are read by CreateNetwork() only;
  /// a backend that is constructed directly ignores them.
  bool enable_dnn = false;

  /// One file that holds a whole binary Caffe model, description and weights. When it is not empty,
  /// the pair below is not looked at.
  std::string dnn_binary_path;

  /// Caffe network description (text), used together with dnn_caffemodel_path.
  std::string dnn_prototxt_path;

  /// Caffe trained weights.
  std::string dnn_caffemodel_path;

  /// The Inference Engine backend may be used.
  bool enable_ie = false;

  /// Inference Engine model for the CPU: description (.xml). Both files for the CPU are needed by
  /// every IeNetwork, because the CPU is the device that it falls back to.
  std::string ie_cpu_xml_path;

  /// Its weights (.bin).
  std::string ie_cpu_bin_path;

  /// Inference Engine model for the GPU: description (.xml). The GPU is considered only when this
  /// and ie_gpu_bin_path are set.
  std::string ie_gpu_xml_path;

  /// Its weights (.bin).
  std::string ie_gpu_bin_path;

  /// The TensorFlow Lite backend may be used.
  bool enable_tflite = false;

  /// TensorFlow Lite flatbuffer model.
  std::string tflite_model_path;

  /// Width in pixels that the Inference Engine network is reshaped to, together with input_height.
  /// When either is 0, the model's own size stays.
  std::uint32_t input_width = 0;

  /// Height in pixels; see input_width.
  std::uint32_t input_height = 0;

  /// Number of images in one inference of the Inference Engine; must be at least 1 there.
  std::uint32_t batch_size = 0;
};

}  // namespace velmora::plugin::network
