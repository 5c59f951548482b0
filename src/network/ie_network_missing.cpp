// IeNetwork for builds without the Inference Engine. It is exported anyway, so that a host links
// with either build.
#include <velmora/plugin/network/ie_network.h>

namespace velmora::plugin::network {

class IeNetwork::InferRequest {};

IeNetwork::IeNetwork(NetworkConfig config) : BaseNetwork(config) {
  throw Exception("[IeNetwork] Init network failed");
}

IeNetwork::~IeNetwork() = default;

// Never called, because the constructor throws.
void IeNetwork::ForwardAsync(const cv::Mat& /*image*/) {}
OutputMap IeNetwork::WaitOutput() { return {}; }
std::vector<OutputMap> IeNetwork::Forward(const std::vector<cv::Mat>& /*images*/) { return {}; }
OutputMap IeNetwork::Forward(const cv::Mat& /*image*/) { return {}; }
bool IeNetwork::ShouldExitAfterShutdown() const { return gpu_enabled_; }

}  // namespace velmora::plugin::network
