// Files that the user names.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace velmora::tool {

/// The absolute path without "." and "..", and with symbolic links left as they are: two links to
/// one image may have two truths.
std::filesystem::path NormalPath(const std::filesystem::path& path);

/// The extension with its dot, in lower case as far as it is ASCII.
std::string LowerExtension(const std::filesystem::path& path);

/// Throws std::runtime_error (without the path) unless this is a readable file that is not empty.
void CheckReadable(const std::string& path);

/// The whole file; throws as CheckReadable() does.
std::string ReadFile(const std::string& path);

/// Writes all of it; otherwise false, with errno.
bool WriteAll(int file, std::string_view bytes);

}  // namespace velmora::tool
