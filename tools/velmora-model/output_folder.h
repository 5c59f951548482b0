// A folder for what the user wants kept.
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
  /// Makes the folder. Throws std::filesystem::filesystem_error.
  OutputFolder(std::string path, const std::vector<std::string>& inputs);

  /// Writes STEM EXTENSION, or STEM-2 EXTENSION and so on if this object has written that already,
  /// and returns its path. What was there before is replaced when it is a file, and neither one of
  /// the inputs nor a link; nothing is written through a link. Throws std::runtime_error, with the
  /// path.
  std::string Write(const std::string& stem, const std::string& extension, std::string_view bytes);

 private:
  std::string path_;
  std::set<std::pair<std::uint64_t, std::uint64_t>> inputs_;  // device and inode
  std::set<std::string> written_;
};

}  // namespace velmora::tool
