#include <velmora/plugin/network/base_network.h>

#include <utility>

namespace velmora::plugin::network {

Exception::Exception(std::string text) : message(std::move(text)) {}
Exception::Exception(const Exception& other) = default;
Exception::Exception(Exception&& other) noexcept = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception& Exception::operator=(Exception&& other) noexcept = default;
Exception::~Exception() = default;

BaseNetwork::BaseNetwork(NetworkConfig config) : config_(config) {}

BaseNetwork::~BaseNetwork() = default;

void BaseNetwork::ForwardAsync(const cv::Mat& /*image*/) {}

bool BaseNetwork::ShouldExitAfterShutdown() const { return false; }

}  // namespace velmora::plugin::network
