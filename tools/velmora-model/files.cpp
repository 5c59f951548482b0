#include "files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace velmora::tool {

std::filesystem::path NormalPath(const std::filesystem::path& path) {
  return (std::filesystem::current_path() / path).lexically_normal();
}

std::string LowerExtension(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(), [](char c) {
    return 'A' <= c && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return extension;
}

void CheckReadable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("is not a regular file");
  }
  if (status.st_size == 0) {
    throw std::runtime_error("the file is empty");
  }
}

std::string ReadFile(const std::string& path) {
  CheckReadable(path);
  std::ifstream file(path, std::ios::binary);
  std::string text(std::filesystem::file_size(path), '\0');  // at once: weights are many bytes
  if (!file.read(text.data(), static_cast<std::streamsize>(text.size()))) {
    throw std::runtime_error("cannot be read");
  }
  return text;
}

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  return true;
}

}  // namespace velmora::tool
