#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

namespace velmora::plugin::network::guards {

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  explicit File(const std::string& path) {
    do {
      // Without O_NONBLOCK, opening a FIFO waits for a writer.
      fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd_ < 0 && errno == EINTR);
    error_ = errno;
  }
  ~File() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  int error() const { return error_; }  // errno, if it is not open

  // Reading anything else would consume content that OpenCV needs.
  bool is_regular() const {
    struct stat status = {};
    return fstat(fd_, &status) == 0 && S_ISREG(status.st_mode);
  }

  int size() const {
    struct stat status = {};
    fstat(fd_, &status);
    return static_cast<int>(std::min<off_t>(status.st_size, INT_MAX));
  }

  // A path to this very file, even if its own path now leads to another.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_ = -1;
  int error_ = 0;
};

}  // namespace velmora::plugin::network::guards
