// How the code of the video service opens and locks files.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace LibReelhouse {

/// open(2) with a close-on-exec descriptor, because a transcoder that the host starts while it
/// holds a lock would inherit the lock. Signals do not make it fail. Anything but a regular file or
/// a directory is refused with ENXIO, because opening a FIFO may block and reading a device may
/// never end. Returns -1 and sets errno on failure.
inline int OpenFile(const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = open(path, flags | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0 && errno == EWOULDBLOCK) {
      // Another process holds a lease on the file, which it only gives up for an open that blocks.
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

/// Closes a descriptor (-1 for none) at the end of a scope and ignores errors.
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

/// Appends the rest of the file to `text`. Returns false if a read fails.
inline bool ReadAll(int fd, std::string& text) {
  char buffer[4096];
  ssize_t size = 0;
  while ((size = read(fd, buffer, sizeof buffer)) > 0 || (size < 0 && errno == EINTR)) {
    text.append(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  return size == 0;
}

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

/// flock(2), but signals do not end the wait.
inline int LockDescriptor(int fd, int operation) {
  int result = -1;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

}  // namespace LibReelhouse
