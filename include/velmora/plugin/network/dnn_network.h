#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

namespace velmora::plugin::network {

/// Runs a Caffe model on the CPU through OpenCV's dnn module. It works on every machine and is
/// therefore the fallback. An object must not be used by two threads at once.
///
/// The network's input must be named "data". An image may have any number of channels and any depth
/// from 8 to 64 bits (it is converted to floats), but its size and number of channels must match
/// the network. Outputs are returned without their first axis: C * H * W values for 1 x C x H x W.
///
/// Besides Exception, the functions throw OpenCV's cv::Exception.
class VELMORA_EXPORT DnnNetwork : public BaseNetwork {
 public:
  /// Loads `dnn_binary_path` or, if that is empty, the pair `dnn_prototxt_path` and
  /// `dnn_caffemodel_path`. Throws Exception "[DnnNetwork] Load dnn network failed" if the files do
  /// not contain a usable network.
  explicit DnnNetwork(NetworkConfig config);
  ~DnnNetwork() override;

  /// Runs the image synchronously and stores the result for WaitOutput(). If an earlier result has
  /// not been fetched, keeps it and throws Exception "[DnnNetwork] Please call 'WaitOutput' before
  /// next call".
  void ForwardAsync(const cv::Mat& image) override;

  /// Removes and returns the stored result, or an empty map if there is none. Never blocks.
  OutputMap WaitOutput() override;

  /// Runs the images one by one.
  std::vector<OutputMap> Forward(const std::vector<cv::Mat>& images) override;

  OutputMap Forward(const cv::Mat& image) override;

 private:
  // The cv::dnn::Net. It is hidden because the OpenCV version is chosen when the library is built:
  // hosts need no dnn headers, and the layout of this class is the same for all versions.
  class Net;
  std::unique_ptr<Net> net_;

  // The result between ForwardAsync() and WaitOutput().
  OutputMap pending_output_;
};

}  // namespace velmora::plugin::network
