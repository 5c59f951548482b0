#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <chrono>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::plugin::network {

/// Runs an Inference Engine (OpenVINO) IR model on the integrated GPU or on the CPU. The hardware
/// transcoder of the video service has priority on the GPU: before every inference the network
/// looks at the transcoding record, leaves the GPU at once while a hardware transcode runs, and
/// returns when calls have found it free for a minute. A call that moves the network takes as long
/// as loading it. One object is used by one thread at a time.
///
/// An image is H x W x C continuous 32-bit floats of the network's size, channels interleaved, or
/// as many floats in one channel. More values than the input takes are passed over; fewer, another
/// number of channels and values of another type are an Exception. The input that is fed is the
/// first by name, and must take N x C x H x W. An output is returned whole, in its own order.
///
/// A move between the devices can fail: the inference that wanted it then throws what the
/// constructor would. It is not tried again: later ones run where the network was, be it on the GPU
/// beside a transcode, until a next move succeeds. GetDevice() and what the next move starts from
/// are the new device all the same.
///
/// Constructing one sets the environment variable OCL_ICD_VENDORS of the process. Besides
/// Exception, the operations throw the engine's exceptions unchanged.
class VELMORA_EXPORT IeNetwork : public BaseNetwork {
 public:
  /// Loads the model. The GPU is considered when the machine has one that the engine can use, and
  /// both of ie_gpu_xml_path and ie_gpu_bin_path are set. Throws Exception
  /// "[IeNetwork] Init network failed" when the device cannot load the model, and others for a
  /// model without inputs, a batch size of 0, a size for an input of fewer than four dimensions,
  /// and an input that leaves sizes open: an open batch takes batch_size, an open height and width
  /// need both of input_width and input_height. A file that cannot be read is the engine's
  /// exception.
  explicit IeNetwork(NetworkConfig config);
  ~IeNetwork() override;

  /// Starts one image and returns. The image may be changed or released at once.
  void ForwardAsync(const cv::Mat& image) override;

  /// Waits for the last ForwardAsync(). With a batch size above 1 each output holds a whole batch,
  /// the image's own values first.
  OutputMap WaitOutput() override;

  /// Runs `batch_size` images at a time and returns one map for each image, in order.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  /// Runs one image. With a batch size above 1 the outputs are as those of WaitOutput().
  OutputMap Forward(const cv::Mat& image) override;

  /// True for a network that may use the GPU: the drivers that it has opened keep the process.
  bool ShouldExitAfterShutdown() const override;

  /// "GPU" or "CPU": the device that the network is on, or that its last, failed move was to.
  const std::string& GetDevice() const { return device_; }

 private:
  VELMORA_LOCAL void Initialize();
  VELMORA_LOCAL void SwitchDeviceIfNeeded();
  VELMORA_LOCAL void SetInputData(const std::vector<cv::Mat>& images);
  VELMORA_LOCAL std::vector<float> GetOutputData(const std::string& name);
  VELMORA_LOCAL OutputMap ReadOutputs();

  std::string device_;

  bool gpu_enabled_ = false;

  // On the CPU, and calls have found the GPU free since wait_start_.
  bool waiting_for_gpu_ = false;
  std::chrono::steady_clock::time_point wait_start_;

  // The InferenceEngine::InferRequest, the only object of the engine that is kept. Opaque here for
  // the reasons that DnnNetwork has.
  class InferRequest;
  std::unique_ptr<InferRequest> infer_request_;

  // The input that is fed.
  std::string input_name_;
};

}  // namespace velmora::plugin::network
