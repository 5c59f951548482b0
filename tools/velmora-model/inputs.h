// The size of a network's input as its files state it. The one place of the program that asks the
// engines themselves: they know, and run other sizes all the same, or read them as noise.
#pragma once

#include <velmora/plugin/network/network_config.h>

namespace velmora::tool {

/// What the backend feeds with an image; 0 for what the file leaves open.
struct InputShape {
  int width = 0;
  int height = 0;
  int channels = 0;
};

/// Each for the form of one backend, which must have loaded it before: these look at no file with
/// the suspicion that the library does. The Inference Engine's is that of the pair for the CPU,
/// with `input_width` and `input_height`.
InputShape DnnInput(const plugin::network::NetworkConfig& config);
InputShape IeInput(const plugin::network::NetworkConfig& config);
InputShape TfLiteInput(const plugin::network::NetworkConfig& config);

}  // namespace velmora::tool
