// What crashes OpenCV's importer, or the network that it makes.
#pragma once

#include <string>

#include "caffe/format.h"

namespace velmora::plugin::network::guards {

// Why OpenCV may not have a model; empty when it may. `size` is that of the file of the weights, in
// which a value takes two bytes or more.
std::string BadModel(const pb::Message& description, const pb::Message& weights, int size);

// The same for the numbers of one layer. `type` is its type in small letters without "_".
std::string BadNumber(const pb::Message& layer, const std::string& type);

// The numbers of a layer that are called `name`, in whatever message they stand.
std::vector<std::int64_t> NumbersOf(const pb::Message& layer, std::string_view name);

}  // namespace velmora::plugin::network::guards
