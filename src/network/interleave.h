#pragma once

#include <cstddef>

namespace velmora::plugin::network {

/// Copies an image of interleaved channels into one plane a channel: value c of pixel p goes to
/// planes[c * pixels + p]. The two must not overlap.
void InterleavedToPlanes(const float* image, float* planes, std::size_t channels,
                         std::size_t pixels);

}  // namespace velmora::plugin::network
