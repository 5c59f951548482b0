// A model's description: its layers, and the size of its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "caffe/file.h"
#include "caffe/format.h"

namespace velmora::plugin::network::guards {

std::string NameOf(const pb::Message& layer);
std::string TypeOf(const pb::Message& layer);

// If there are layers of both forms, OpenCV takes the old ones and drops the others.
std::vector<const pb::Message*> LayersOf(const pb::Message& net);

// How many layers are of the oldest form.
std::ptrdiff_t CountOldest(const pb::Message& net);

// As with a binary model: `layer{}` takes eight bytes there and a kilobyte here, and again in
// OpenCV. A message begins with a bracket, of one kind or the other.
bool IsTooMuchText(const File& file);

// Silently, and past fields that caffe_format.proto lacks: what to make of those is OpenCV's
// affair.
bool ParseText(const File& file, pb::Message& net);

// The size of the input "data"; empty where the description states none.
std::vector<std::int64_t> InputOf(const pb::Message& net);

}  // namespace velmora::plugin::network::guards
