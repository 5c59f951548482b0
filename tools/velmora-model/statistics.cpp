#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace velmora::tool {

double Percentile(std::vector<double> values, double percent) {
  const double rank = std::ceil(percent / 100 * static_cast<double>(values.size()));
  const auto found = values.begin() + static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
  std::nth_element(values.begin(), found, values.end());
  return *found;
}

}  // namespace velmora::tool
