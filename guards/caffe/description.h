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

// If a network has layers of both forms, OpenCV uses the old ones and ignores the others.
std::vector<const pb::Message*> LayersOf(const pb::Message& net);

// Counts the layers of the oldest form, which are nested in another layer.
std::ptrdiff_t CountOldest(const pb::Message& net);

// The limits of format.h, for text: `layer{}` has eight bytes there but takes a kilobyte in memory,
// and another one in OpenCV. Every message begins with "{" or "<".
bool IsTooMuchText(const File& file);

// Logs no errors and ignores fields that caffe_format.proto lacks, which are left to OpenCV.
bool ParseText(const File& file, pb::Message& net);

// Returns the size of the input "data", or an empty vector if the description does not state it.
std::vector<std::int64_t> InputOf(const pb::Message& net);

}  // namespace velmora::plugin::network::guards
