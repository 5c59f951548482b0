#include <velmora/plugin/network/dnn_network.h>

#include <opencv2/dnn.hpp>
#include <utility>

#include "caffe/caffe_model.h"
#include "network/log.h"

namespace velmora::plugin::network {

class DnnNetwork::Net : public cv::dnn::Net {
 public:
  Net() = default;
  explicit Net(const cv::dnn::Net& net) : cv::dnn::Net(net) {}
};

DnnNetwork::DnnNetwork(NetworkConfig config) : BaseNetwork(config), net_(std::make_unique<Net>()) {
  if (!config_.dnn_binary_path.empty()) {
    *net_ = Net(cv::dnn::readNetFromCaffeBinary(cv::String(config_.dnn_binary_path.c_str())));
  } else {
    *net_ = Net(cv::dnn::readNetFromCaffe(cv::String(config_.dnn_prototxt_path.c_str()),
                                          cv::String(config_.dnn_caffemodel_path.c_str())));
  }
  if (net_->empty()) {
    const std::string reason =
        config_.dnn_binary_path.empty()
            ? guards::RefusalOfCaffePair(config_.dnn_prototxt_path, config_.dnn_caffemodel_path)
            : guards::RefusalOfCaffeBinary(config_.dnn_binary_path);
    if (!reason.empty()) {
      LogInfo("[DnnNetwork] Refused {}", reason);
    }
    throw Exception("[DnnNetwork] Load dnn network failed");
  }
  LogInfo("[DnnNetwork] Init network");
}

DnnNetwork::~DnnNetwork() { LogDebug("[DnnNetwork] Release network"); }

OutputMap DnnNetwork::Forward(const cv::Mat& image) {
  const cv::dnn::Blob blob = cv::dnn::Blob::fromImages(image, -1);
  net_->setBlob(".data", blob);
  net_->forward();

  // Request all outputs before reading the first: an engine that must know in advance what to keep
  // then runs once more for all new outputs together, not once for each of them.
  std::vector<cv::dnn::Blob> outs;
  outs.reserve(config_.output_names.size());
  for (const std::string& name : config_.output_names) {
    outs.push_back(net_->getBlob(cv::String(name.c_str())));
  }

  OutputMap result;
  for (std::size_t i = 0; i < outs.size(); ++i) {
    const cv::dnn::Blob& out = outs[i];
    out.updateMat(true);
    const std::size_t count = out.total(1);
    const auto* const values = out.matRefConst().ptr<float>();
    result[config_.output_names[i]] = std::vector<float>(values, values + count);
  }
  return result;
}

std::vector<OutputMap> DnnNetwork::Forward(const std::vector<cv::Mat>& images) {
  std::vector<OutputMap> results(images.size());
  for (std::size_t i = 0; i < images.size(); ++i) {
    results[i] = Forward(images[i]);
  }
  return results;
}

void DnnNetwork::ForwardAsync(const cv::Mat& image) {
  if (!pending_output_.empty()) {
    throw Exception("[DnnNetwork] Please call 'WaitOutput' before next call");
  }
  pending_output_ = Forward(image);
}

OutputMap DnnNetwork::WaitOutput() { return std::exchange(pending_output_, OutputMap()); }

}  // namespace velmora::plugin::network
