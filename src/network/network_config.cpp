#include <velmora/plugin/network/network_config.h>

namespace velmora::plugin::network {

NetworkConfig::NetworkConfig(const NetworkConfig& other) = default;
NetworkConfig::~NetworkConfig() = default;

}  // namespace velmora::plugin::network
