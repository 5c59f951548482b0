#pragma once

#include "caffe/file.h"
#include "caffe/format.h"

namespace velmora::plugin::network::guards {

enum class Parsed { kModel, kNoModel, kTooMuch };  // the latter by the limits in format.h

// Reads a binary model except for the values in its blobs and fields that the format lacks, which
// it skips instead of loading them.
Parsed ParseBinary(const File& file, pb::Message& net);

}  // namespace velmora::plugin::network::guards
