#pragma once

#include <cstddef>

namespace velmora::plugin::network {

/// Copies an image with interleaved channels into one plane per channel: value c of pixel p goes to
/// planes[c * pixels + p]. The two must not overlap.
void InterleavedToPlanes(const float* image, float* planes, std::size_t channels,
                         std::size_t pixels);

}  // namespace velmora::plugin::network
