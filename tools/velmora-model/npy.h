// Arrays for NumPy.
#pragma once

#include <string>
#include <vector>

namespace velmora::tool {

/// The bytes of a .npy file, version 1.0 (numpy.lib.format): 32-bit floats in C order. The product
/// of `shape` is the number of values.
std::string ToNpy(const std::vector<float>& values, const std::vector<std::size_t>& shape);

}  // namespace velmora::tool
