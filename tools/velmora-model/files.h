// Files that the user names, and what went wrong with them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/console.h"
#include "common/text.h"

namespace velmora::tool {

/// Throws std::runtime_error (without the path) unless this is a readable file with something in
/// it.
void CheckReadable(const std::string& path);

/// The whole file; throws as CheckReadable() does.
std::string ReadFile(const std::string& path);

/// All white space as single blanks: engines write their messages over several lines.
std::string Squeeze(const std::string& text);

/// Writes all of it; otherwise false, with errno.
bool WriteAll(int file, std::string_view bytes);

/// The exception that is being handled, whatever its type, as one short line. What `reason`
/// tells is added where it is not said already: the library's own texts are fixed ones.
std::string CurrentError(const std::function<std::string()>& reason = nullptr);

}  // namespace velmora::tool
