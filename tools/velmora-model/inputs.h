// What the library keeps to itself: the size of a network's input, and why an engine does not take
// a model. The one place of the program that asks the engines themselves.
#pragma once

#include <velmora/plugin/network/network_config.h>

#include <string>

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

/// Each for a form that its backend could not load or run: why not, in the words of the engine or
/// of the rule that refused it, on one line; empty where all goes well now. Loads it once more. The
/// Inference Engine's is on this device, with the pair for the CPU.
std::string DnnReason(const plugin::network::NetworkConfig& config);
std::string IeReason(const plugin::network::NetworkConfig& config, const std::string& device);
std::string TfLiteReason(const plugin::network::NetworkConfig& config);

}  // namespace velmora::tool
