#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

namespace velmora::plugin::network {

/// Runs a TensorFlow Lite model on the CPU, with the engine's built-in operators and default number
/// of threads. An object must not be used by two threads at once.
///
/// The model's first input must be 32-bit floats of the shape N x H x W x C. An image is H x W x C
/// continuous 32-bit floats with interleaved channels. It is copied unchanged, without values in
/// excess of H x W x C, and is always a single image, whatever N is. The result has one entry,
/// "output": the first output, which must also be 32-bit floats, with as many values as its second
/// dimension states. Other inputs are never set and other outputs never read.
class VELMORA_EXPORT TfLiteNetwork : public BaseNetwork {
 public:
  /// Loads `tflite_model_path`, the only field that is used. Throws Exception "Failed to load
  /// model" if the file cannot be read or does not contain a valid model, and "Failed to build
  /// interpreter" or "Failed to allocate tensors" if the engine cannot run the model. The file
  /// stays mapped: it may be replaced by another file, but must not be modified meanwhile.
  explicit TfLiteNetwork(NetworkConfig config);
  ~TfLiteNetwork() override;

  /// Does nothing: this backend does not support asynchronous inference.
  void ForwardAsync(const cv::Mat& image) override;

  /// Returns an empty map immediately.
  OutputMap WaitOutput() override;

  /// Runs the images one by one.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  /// Runs one image. Throws Exception "Failed to invoke interpreter" if the run fails, and "Image
  /// does not fit the input tensor" or "Output tensor is not readable" instead of accessing invalid
  /// memory.
  OutputMap Forward(const cv::Mat& image) override;

 private:
  // The tflite::FlatBufferModel and its tflite::Interpreter. They are hidden for the same reasons
  // as the engine object of DnnNetwork.
  struct Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace velmora::plugin::network
