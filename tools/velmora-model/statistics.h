#pragma once

#include <vector>

namespace velmora::tool {

/// The least of the values that so many percent of them do not exceed (the nearest rank). There has
/// to be a value.
double Percentile(std::vector<double> values, double percent);

}  // namespace velmora::tool
