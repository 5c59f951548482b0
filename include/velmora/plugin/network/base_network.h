#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/network_config.h>

#include <opencv2/core.hpp>
#include <string>
#include <unordered_map>
#include <vector>

/// Neural networks on images, independent of the engine that the machine has.
namespace velmora::plugin::network {

/// The result for one image. It maps each output's name to its values, in the output's own memory
/// order (C x H x W for the output of a convolution in the dnn and Inference Engine backends).
using OutputMap = std::unordered_map<std::string, std::vector<float>>;

/// What the library throws for its own errors. It deliberately derives from nothing, so it must be
/// caught by this type. Other exceptions, of the engines and the standard library, pass through.
class VELMORA_EXPORT Exception {
 public:
  /// An error with this text.
  explicit Exception(std::string text);

  /// @{
  /// Copies or moves the text.
  Exception(const Exception& other);
  Exception(Exception&& other) noexcept;
  Exception& operator=(const Exception& other);
  Exception& operator=(Exception&& other) noexcept;
  /// @}

  ~Exception();

  /// A fixed English text.
  std::string message;
};

/// A loaded network of any engine. An object must not be used by two threads at once; different
/// objects are independent. The caller prepares the images (size, channel order, normalisation):
/// the library does not resize or scale them.
///
/// Call Forward(), or ForwardAsync() and then WaitOutput(), any number of times, then delete the
/// object through this class. After fork(2), the child must neither use nor delete a network of its
/// parent, nor call exit(3) if that would delete one, because it lacks the engine's threads.
class VELMORA_EXPORT BaseNetwork {
 public:
  /// Stores a copy of `config`.
  explicit BaseNetwork(NetworkConfig config);
  BaseNetwork(const BaseNetwork&) = delete;
  BaseNetwork& operator=(const BaseNetwork&) = delete;
  virtual ~BaseNetwork();

  /// Starts inference on one image, which must not change until WaitOutput() returns the result.
  /// The default implementation does nothing.
  virtual void ForwardAsync(const cv::Mat& image);

  /// Waits for the last ForwardAsync() and returns its result.
  virtual OutputMap WaitOutput() = 0;

  /// Runs all images and returns one map per image, in the same order.
  virtual std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) = 0;

  /// Runs one image: H x W x C 32-bit floats, continuous, with interleaved channels.
  virtual OutputMap Forward(const cv::Mat& image) = 0;

  /// Whether the host should exit its process after shutting this network down, instead of merely
  /// deleting the network.
  virtual bool ShouldExitAfterShutdown() const;

 protected:
  /// Never changes after construction.
  NetworkConfig config_;
};

}  // namespace velmora::plugin::network
