#include "npy.h"

#include <fmt/ranges.h>

#include <bit>

namespace velmora::tool {

std::string ToNpy(const std::vector<float>& values, const std::vector<std::size_t>& shape) {
  constexpr std::size_t kPreamble = 10;  // magic, version, length of the header
  std::string header = fmt::format("{{'descr': '{}f4', 'fortran_order': False, 'shape': ({}{}), }}",
                                   std::endian::native == std::endian::little ? '<' : '>',
                                   fmt::join(shape, ", "), shape.size() == 1 ? "," : "");
  header.resize((kPreamble + header.size() + 64) / 64 * 64 - kPreamble, ' ');
  header.back() = '\n';
  std::string bytes("\x93NUMPY\x01\x00", 8);
  bytes += static_cast<char>(header.size() % 256);
  bytes += static_cast<char>(header.size() / 256);
  bytes += header;
  return bytes.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

}  // namespace velmora::tool
