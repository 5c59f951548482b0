// A folder of the benchmark's own to work in, for the models that it writes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// The current folder while it lives; gone with all that is in it afterwards.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string name = std::filesystem::temp_directory_path() / "velmora-benchmark-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    folder_ = name;
    std::filesystem::current_path(folder_);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(folder_, ignored);
  }

 private:
  std::filesystem::path folder_;
};
