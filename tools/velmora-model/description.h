// Reads a MODEL.json. Apart from the networks, so that it links without an engine.
#pragma once

#include <string>

#include "model.h"

namespace velmora::tool {

/// What the file says, without a network. Throws std::runtime_error, with the key at fault but not
/// the path, when it cannot be read or is no description of a model.
Model ReadDescription(const std::string& path);

}  // namespace velmora::tool
