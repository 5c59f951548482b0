// TfLiteNetwork for builds without TensorFlow Lite. It is exported anyway, so that a host links
// with either build.
#include <velmora/plugin/network/tf_lite_network.h>

namespace velmora::plugin::network {

struct TfLiteNetwork::Engine {};

TfLiteNetwork::TfLiteNetwork(NetworkConfig config) : BaseNetwork(config) {
  throw Exception("Failed to load model");
}

TfLiteNetwork::~TfLiteNetwork() = default;

// Never called, because the constructor throws.
void TfLiteNetwork::ForwardAsync(const cv::Mat& /*image*/) {}
OutputMap TfLiteNetwork::WaitOutput() { return {}; }
std::vector<OutputMap> TfLiteNetwork::Forward(const std::vector<cv::Mat>& /*images*/) { return {}; }
OutputMap TfLiteNetwork::Forward(const cv::Mat& /*image*/) { return {}; }

}  // namespace velmora::plugin::network
