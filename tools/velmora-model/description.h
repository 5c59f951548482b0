// Reads a MODEL.json. Links without an engine.
#pragma once

#include <string>

#include "model.h"

namespace velmora::tool {

/// The model without its network. Throws std::runtime_error, with the key but without the path, if
/// the file cannot be read or does not describe a model.
Model ReadDescription(const std::string& path);

}  // namespace velmora::tool
