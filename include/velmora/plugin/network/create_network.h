#pragma once

#include <velmora/plugin/export.h>
#include <velmora/plugin/network/base_network.h>

namespace velmora::plugin::network {

/// Builds the network that this machine supports and `config` allows: an IeNetwork when the machine
/// can run the Inference Engine and enable_ie is set; else a TfLiteNetwork when it can run
/// TensorFlow Lite and enable_tflite is set; else a DnnNetwork when enable_dnn is set. The machine
/// is asked through libvelmora-plugin-platform.so.1, at every call.
///
/// The caller owns the network and deletes it. Never null. Throws Exception "Network not support
/// any framework" when nothing is left, and passes on what the chosen backend's constructor throws:
/// no other backend is tried then.
VELMORA_EXPORT BaseNetwork* CreateNetwork(NetworkConfig config);

}  // namespace velmora::plugin::network
