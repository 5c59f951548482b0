#include "output_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "files.h"

namespace velmora::tool {

namespace fs = std::filesystem;

OutputFolder::OutputFolder(std::string path, const std::vector<std::string>& inputs)
    : path_(std::move(path)) {
  fs::create_directories(path_);
  for (const std::string& input : inputs) {
    struct stat status {};
    if (stat(input.c_str(), &status) == 0) {
      inputs_.emplace(status.st_dev, status.st_ino);
    }
  }
}

std::string OutputFolder::Write(const std::string& stem, const std::string& extension,
                                std::string_view bytes) {
  std::string name = stem + extension;
  for (int number = 2; !written_.insert(name).second; ++number) {
    name = fmt::format("{}-{}{}", stem, number, extension);
  }
  std::string target = fs::path(path_) / name;
  const auto refuse = [&](std::string_view why) {
    throw std::runtime_error(fmt::format("not written: {}: {}", target, why));
  };
  // O_NONBLOCK: opening a FIFO would wait for a reader.
  const int file = open(target.c_str(),
                        O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (file < 0) {
    refuse(errno == ELOOP ? "is a link" : errno == ENXIO ? "is not a file" : std::strerror(errno));
  }
  struct stat status {};
  std::string error;
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
    error = "is not a file";
  } else if (inputs_.contains({status.st_dev, status.st_ino})) {
    error = "is an input image";
  } else if (ftruncate(file, 0) != 0 || !WriteAll(file, bytes)) {
    error = std::strerror(errno);
    unlink(target.c_str());
  }
  close(file);
  if (!error.empty()) {
    refuse(error);
  }
  return target;
}

}  // namespace velmora::tool
