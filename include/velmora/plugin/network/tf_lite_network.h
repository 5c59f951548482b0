#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

namespace velmora::plugin::network {

/// Runs a TensorFlow Lite model on the CPU, with the engine's built-in operators and its own choice
/// of threads. One object is used by one thread at a time.
///
/// The model's first input must be 32-bit floats, N x H x W x C: an image is H x W x C continuous
/// 32-bit floats, channels interleaved, copied as it is (more values than the input takes are
/// passed over), and is always one image, whatever N is. The result is one entry "output": the
/// first output, which must be 32-bit floats too, as many values of it as its second dimension
/// says. Further inputs are never fed, further outputs never read.
class VELMORA_EXPORT TfLiteNetwork : public BaseNetwork {
 public:
  /// Loads `tflite_model_path`, the only field that is read. Throws Exception "Failed to load
  /// model" for a file that cannot be read or is no model, "Failed to build interpreter" and
  /// "Failed to allocate tensors" for a model that this engine cannot run. The file stays mapped: a
  /// new one may take its name, but nobody may write into it while the network lives.
  explicit TfLiteNetwork(NetworkConfig config);
  ~TfLiteNetwork() override;

  /// Does nothing: this backend has no asynchronous way.
  void ForwardAsync(const cv::Mat& image) override;

  /// Returns an empty map, always and at once.
  OutputMap WaitOutput() override;

  /// One run for each image, in order.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  /// Runs one image. Throws Exception "Failed to invoke interpreter" when the run fails, "Image
  /// does not fit the input tensor" and "Output tensor is not readable" before memory is touched
  /// that is not there.
  OutputMap Forward(const cv::Mat& image) override;

 private:
  // The tflite::FlatBufferModel and the tflite::Interpreter over it. Opaque here for the reasons
  // that DnnNetwork has.
  struct Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace velmora::plugin::network
