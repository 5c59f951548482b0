#include <velmora-plugin-platform/platform.h>
#include <velmora/plugin/network/create_network.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

namespace velmora::plugin::network {

BaseNetwork* CreateNetwork(NetworkConfig config) {
  // The platform library is asked even if the flag is not set.
  if (platform::IsSupportedIENetwork() && config.enable_ie) {
    return new IeNetwork(config);
  }
  if (platform::IsSupportedTFLiteNetwork() && config.enable_tflite) {
    return new TfLiteNetwork(config);
  }
  if (!config.enable_dnn) {
    throw Exception("Network not support any framework");
  }
  return new DnnNetwork(config);
}

}  // namespace velmora::plugin::network
