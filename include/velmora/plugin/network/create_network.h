#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

namespace velmora::plugin::network {

/// Creates the network that this machine supports and `config` allows: an IeNetwork if the machine
/// can run the Inference Engine and enable_ie is set; otherwise a TfLiteNetwork if it can run
/// TensorFlow Lite and enable_tflite is set; otherwise a DnnNetwork if enable_dnn is set. Each call
/// asks libvelmora-plugin-platform.so.1 what the machine supports.
///
/// The caller owns the network, which is never null, and must delete it. Throws Exception "Network
/// not support any framework" if none of the three applies. Exceptions from the chosen backend's
/// constructor pass through; no other backend is tried.
VELMORA_EXPORT BaseNetwork* CreateNetwork(NetworkConfig config);

}  // namespace velmora::plugin::network
