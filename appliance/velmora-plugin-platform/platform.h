// The functions of the photo service's libvelmora-plugin-platform.so.1 that this project calls:
// which engines the machine can run. Machines without that library use the substitute built here.
// All may be called from several threads at once. None throws.
#pragma once

namespace velmora::plugin::platform {

/// Whether the Inference Engine can run: it was present when this library was built, and supports
/// the processor.
__attribute__((visibility("default"))) bool IsSupportedIENetwork();

/// Whether TensorFlow Lite can run: it was present when this library was built. The engine itself
/// selects code that suits the processor.
__attribute__((visibility("default"))) bool IsSupportedTFLiteNetwork();

/// Whether the Inference Engine can use a GPU: IsSupportedIENetwork() is true, and there is an
/// Intel graphics device that this process may open. Every call checks the machine, which takes
/// microseconds.
__attribute__((visibility("default"))) bool IsSupportedIENetworkGpu();

}  // namespace velmora::plugin::platform
