// Files that the user names, and what went wrong with them.
#pragma once

#include <string>

#include "common/console.h"
#include "common/text.h"

namespace velmora::tool {

/// Throws std::runtime_error (without the path) unless this is a readable file with something in
/// it.
void CheckReadable(const std::string& path);

/// The whole file; throws as CheckReadable() does.
std::string ReadFile(const std::string& path);

/// The exception that is being handled, whatever its type, as one short line.
std::string CurrentFault();

}  // namespace velmora::tool
