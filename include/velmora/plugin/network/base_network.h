#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/network_config.h>

#include <opencv2/core.hpp>
#include <string>
#include <unordered_map>
#include <vector>

/// Neural networks on images, whatever engine the machine has.
namespace velmora::plugin::network {

/// The result of one image: output name to that output's values, flat, in the output's own memory
/// order (C x H x W for the output of a convolution in the dnn and Inference Engine backends).
using OutputMap = std::unordered_map<std::string, std::vector<float>>;

/// What the library throws for its own failures. It derives from nothing on purpose: catch it by
/// this type. Exceptions of the engines and of the standard library pass through as they are.
class VELMORA_EXPORT Exception {
 public:
  /// An error with this text.
  explicit Exception(std::string text);

  /// @{
  /// Copies and moves the text; an assigned exception loses its own.
  Exception(const Exception& other);
  Exception(Exception&& other) noexcept;
  Exception& operator=(const Exception& other);
  Exception& operator=(Exception&& other) noexcept;
  /// @}

  ~Exception();

  /// Fixed English text.
  std::string message;
};

/// A loaded network, whatever the engine. One object is used by one thread at a time; different
/// objects are independent. Images are prepared by the caller (size, channel order, normalisation);
/// the library resizes and scales nothing.
///
/// Call any number of Forward(), or pairs of ForwardAsync() and WaitOutput(), then delete the
/// object through this class. A child made by fork(2) may do none of this with a network of its
/// parent's, nor end by exit(3) where that would delete one: the engine's threads are not there.
class VELMORA_EXPORT BaseNetwork {
 public:
  /// Keeps a copy of `config` for the life of the network.
  explicit BaseNetwork(NetworkConfig config);
  BaseNetwork(const BaseNetwork&) = delete;
  BaseNetwork& operator=(const BaseNetwork&) = delete;
  virtual ~BaseNetwork();

  /// Starts inference on one image; its result is fetched by WaitOutput(). The image must stay
  /// unchanged until then. A backend that does not override this ignores the call.
  virtual void ForwardAsync(const cv::Mat& image);

  /// Waits for the last ForwardAsync() and returns its result.
  virtual OutputMap WaitOutput() = 0;

  /// Runs every image; returns one map for each, in the order of the images.
  virtual std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) = 0;

  /// Runs one image: H x W x C, channels interleaved, continuous, 32-bit floats.
  virtual OutputMap Forward(const cv::Mat& image) = 0;

  /// True when the host should end its process after it has shut this network down, rather than
  /// merely delete it.
  virtual bool ShouldExitAfterShutdown() const;

 protected:
  /// The copy that was made at construction; no operation changes it.
  NetworkConfig config_;
};

}  // namespace velmora::plugin::network
