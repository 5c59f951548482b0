// TfLiteNetwork in a library that is built without TensorFlow Lite: exported all the same, so that
// a host links with either.
#include <velmora/plugin/network/tf_lite_network.h>

namespace velmora::plugin::network {

struct TfLiteNetwork::Engine {};

TfLiteNetwork::TfLiteNetwork(NetworkConfig config) : BaseNetwork(config) {
  throw Exception("Failed to load model");
}

TfLiteNetwork::~TfLiteNetwork() = default;

// No object gets as far as these.
void TfLiteNetwork::ForwardAsync(const cv::Mat& /*image*/) {}
OutputMap TfLiteNetwork::WaitOutput() { return {}; }
std::vector<OutputMap> TfLiteNetwork::Forward(const std::vector<cv::Mat>& /*images*/) { return {}; }
OutputMap TfLiteNetwork::Forward(const cv::Mat& /*image*/) { return {}; }

}  // namespace velmora::plugin::network
