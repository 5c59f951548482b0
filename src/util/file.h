// How the video-service code opens and locks files.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace LibReelhouse {

/// open(2), with three additions. The descriptor is close-on-exec: the host starts transcoders
/// while a lock is held, and one that inherited the descriptor would keep the lock. A signal does
/// not make it fail. What is neither a regular file nor a folder is refused, with ENXIO: a FIFO is
/// waited for, and some devices are read without an end. Returns -1 and errno for a failure.
inline int OpenFile(const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = open(path, flags | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0 && errno == EWOULDBLOCK) {
      // Another process has a lease on the file, and gives it up only for those who wait.
      fd = open(path, flags | O_CLOEXEC, mode);
    }
  } while (fd < 0 && errno == EINTR);
  struct stat status;
  if (fd >= 0 && fstat(fd, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
    close(fd);
    errno = ENXIO;
    return -1;
  }
  return fd;
}

/// Closes a descriptor at the end of a block; -1 for none. What closing may report is passed over.
class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : fd(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd >= 0) {
      close(fd);
    }
  }

  const int fd;
};

/// Reads to the end of the file. False when a read fails; `text` then holds what was read before.
inline bool ReadAll(int fd, std::string& text) {
  char buffer[4096];
  ssize_t size = 0;
  while ((size = read(fd, buffer, sizeof buffer)) > 0 || (size < 0 && errno == EINTR)) {
    text.append(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  return size == 0;
}

/// Writes all of the text. False when a write fails.
inline bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = write(fd, text.data(), text.size());
    if (size < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  return true;
}

/// flock(2), but a signal does not end the wait.
inline int LockDescriptor(int fd, int operation) {
  int result = -1;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

}  // namespace LibReelhouse
