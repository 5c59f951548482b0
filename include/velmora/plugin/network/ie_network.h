#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <chrono>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::plugin::network {

/// Runs an Inference Engine (OpenVINO) IR model on the integrated GPU or on the CPU. The video
/// service's hardware transcoder has priority on the GPU. Before every inference, the network
/// therefore checks the transcoding record: it leaves the GPU as soon as a hardware transcode runs,
/// and returns when calls have found the GPU free for a minute. A call that moves the network takes
/// as long as loading it. An object must not be used by two threads at once.
///
/// An image is H x W x C continuous 32-bit floats of the network's size with interleaved channels,
/// or as many floats in a single channel. Excess values are ignored; too few values, another number
/// of channels or another type throw Exception. The image is fed to the first input by name, which
/// must have the shape N x C x H x W. An output is returned whole, in its own memory order.
///
/// If a move to the other device fails, the call throws what the constructor would. The move is not
/// retried: later calls run on the old device, even on the GPU beside a transcode, until a later
/// move succeeds. GetDevice() and the decision about the next move nevertheless use the new device.
///
/// Constructing an object sets the environment variable OCL_ICD_VENDORS of the process. Besides
/// Exception, the functions throw the engine's exceptions.
class VELMORA_EXPORT IeNetwork : public BaseNetwork {
 public:
  /// Loads the model. The GPU is used only if the machine has one that the engine supports and both
  /// ie_gpu_xml_path and ie_gpu_bin_path are set. Throws Exception "[IeNetwork] Init network
  /// failed" if the device cannot load the model. Throws Exception with other texts if the model
  /// has no input, if batch_size is 0, if a size is given for an input of fewer than four
  /// dimensions, or if a dimension of the input stays open: batch_size sets an open batch, but an
  /// open height or width needs both input_width and input_height. For a file that cannot be read,
  /// the engine throws its own exception.
  explicit IeNetwork(NetworkConfig config);
  ~IeNetwork() override;

  /// Starts one image and returns. The image may be changed or released immediately.
  void ForwardAsync(const cv::Mat& image) override;

  /// Waits for the last ForwardAsync(). If batch_size is greater than 1, each output contains a
  /// whole batch that begins with the values of the image.
  OutputMap WaitOutput() override;

  /// Runs `batch_size` images at a time and returns one map per image, in the same order.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  /// Runs one image. The outputs are like those of WaitOutput().
  OutputMap Forward(const cv::Mat& image) override;

  /// True if the network may use the GPU, because GPU drivers stay in the process once loaded.
  bool ShouldExitAfterShutdown() const override;

  /// Returns "GPU" or "CPU": the device of the network, or of its last move if that failed.
  const std::string& GetDevice() const { return device_; }

 private:
  VELMORA_LOCAL void Initialize();
  VELMORA_LOCAL void SwitchDeviceIfNeeded();
  VELMORA_LOCAL void SetInputData(const std::vector<cv::Mat>& images);
  VELMORA_LOCAL std::vector<float> GetOutputData(const std::string& name);
  VELMORA_LOCAL OutputMap ReadOutputs();

  std::string device_;
  bool gpu_enabled_ = false;

  // True on the CPU while all calls since wait_start_ have found the GPU free.
  bool waiting_for_gpu_ = false;
  std::chrono::steady_clock::time_point wait_start_;

  // The InferenceEngine::InferRequest, the only engine object that is kept. It is hidden for the
  // same reasons as the one of DnnNetwork.
  class InferRequest;
  std::unique_ptr<InferRequest> infer_request_;
  std::string input_name_;  // of the input that receives the images
};

}  // namespace velmora::plugin::network
