// The operations of the photo service's libvelmora-plugin-platform.so.1 that this project calls:
// which engines the machine can run. On the appliance its own library answers; elsewhere the one
// built here does. All may be called from any thread at once, and none throws.
#pragma once

namespace velmora::plugin::platform {

/// True when the Inference Engine can run here: it was there when this library was built, and the
/// processor is one that it runs on.
__attribute__((visibility("default"))) bool IsSupportedIENetwork();

/// True when TensorFlow Lite can run here: it was there when this library was built, and its own
/// choice of code for the processor does the rest.
__attribute__((visibility("default"))) bool IsSupportedTFLiteNetwork();

/// True when the Inference Engine can use a GPU here: IsSupportedIENetwork(), and a graphics device
/// of Intel's that this process may open. Looks at the machine at every call, which takes
/// microseconds.
__attribute__((visibility("default"))) bool IsSupportedIENetworkGpu();

}  // namespace velmora::plugin::platform
