#pragma once

#include <string>

#include "caffe/format.h"

namespace velmora::plugin::network::guards {

// Returns why a model is refused, or "". `size` is that of the weights file, in which every value
// takes at least two bytes.
std::string BadModel(const pb::Message& description, const pb::Message& weights, int size);

// Does the same for the numbers of one layer. `type` is its type in lower case without "_".
std::string BadNumber(const pb::Message& layer, const std::string& type);

// Returns all numbers called `name` in a layer, in whatever message they are.
std::vector<std::int64_t> NumbersOf(const pb::Message& layer, std::string_view name);

}  // namespace velmora::plugin::network::guards
