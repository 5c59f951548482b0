#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

namespace velmora::plugin::network {

/// Runs a Caffe model on the CPU through OpenCV's dnn module. It needs nothing of the machine, so
/// it is the fallback on every one. One object is used by one thread at a time.
///
/// The network's input must be named "data". An image may have any number of channels and any depth
/// from 8 to 64 bits (it is converted to floats), but its size and channels must be what the
/// network takes. An output is returned without its first axis: C * H * W values for an output of
/// 1 x C x H x W.
///
/// Besides Exception, the operations throw OpenCV's cv::Exception unchanged.
class VELMORA_EXPORT DnnNetwork : public BaseNetwork {
 public:
  /// Loads `dnn_binary_path`, or when that is empty the pair `dnn_prototxt_path` and
  /// `dnn_caffemodel_path`. Throws Exception "[DnnNetwork] Load dnn network failed" for files that
  /// hold no usable network.
  explicit DnnNetwork(NetworkConfig config);
  ~DnnNetwork() override;

  /// Runs the image at once and keeps the result for WaitOutput(). Throws Exception
  /// "[DnnNetwork] Please call 'WaitOutput' before next call" while an earlier result is waiting;
  /// that result stays.
  void ForwardAsync(const cv::Mat& image) override;

  /// Returns the kept result and forgets it; an empty map when there is none. Never blocks.
  OutputMap WaitOutput() override;

  /// One pass for each image, in order.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  OutputMap Forward(const cv::Mat& image) override;

 private:
  // The cv::dnn::Net. Opaque here, because which OpenCV it comes from is settled when the library
  // is built: a host needs no dnn header, and this class has one layout over all of them.
  class Net;
  std::unique_ptr<Net> net_;

  // The result between ForwardAsync() and WaitOutput(); empty when nothing is pending.
  OutputMap pending_output_;
};

}  // namespace velmora::plugin::network
