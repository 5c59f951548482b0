// A folder that the user wants results in.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora::tool {

class OutputFolder {
 public:
  /// Creates the folder if it is missing. Throws std::filesystem::filesystem_error.
  OutputFolder(std::string path, const std::vector<std::string>& inputs);

  /// Writes a file named `stem` + `extension`, or "stem-2" and so on if this object has already
  /// written that, and returns its path. Replaces a regular file, unless it is one of the inputs,
  /// and does not follow links. Throws std::runtime_error with the path.
  std::string Write(const std::string& stem, const std::string& extension, std::string_view bytes);

 private:
  std::string path_;
  std::set<std::pair<std::uint64_t, std::uint64_t>> inputs_;  // device and inode
  std::set<std::string> written_;
};

}  // namespace velmora::tool
