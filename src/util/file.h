// How the video-service code opens and locks files.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <fstream>
#include <new>
#include <string>
#include <utility>

namespace LibReelhouse {

/// open(2), with three additions. The descriptor is close-on-exec: the host starts transcoders
/// while a lock is held, and one that inherited the descriptor would keep the lock. A signal does
/// not make it fail. A FIFO is refused, with ENXIO, rather than waited for: it cannot hold a
/// document. Returns -1 and errno for a failure.
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
  if (fd >= 0 && fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode)) {
    close(fd);
    errno = ENXIO;
    return -1;
  }
  return fd;
}

/// Opens a std::ifstream with mode in, or a std::ofstream with mode out | trunc, as its own open()
/// would, but through OpenFile(): the standard streams do not open close-on-exec. A failure leaves
/// the stream closed, with failbit set.
template <typename Stream>
void OpenStream(Stream& stream, const std::string& path, std::ios::openmode mode) {
  const int flags = (mode & std::ios::out) != 0 ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
  const int fd = OpenFile(path.c_str(), flags, 0666);
  // A request of 1 KiB or more makes malloc tidy up all that JsonCpp has freed in small pieces, at
  // the price of several reads: a read buffer stays below. A write buffer has the standard size,
  // which decides what is short enough to be written, and to fail, only as the stream is closed.
  const std::size_t size = (mode & std::ios::out) != 0 ? BUFSIZ : 1000;
  try {
    __gnu_cxx::stdio_filebuf<char> buffer(fd, mode, size);
    if (buffer.is_open()) {
      *stream.rdbuf() = std::move(buffer);
      return;
    }
    if (fd >= 0) {
      close(fd);
    }
  } catch (const std::bad_alloc&) {
    // The buffer has closed the descriptor.
  }
  stream.setstate(std::ios::failbit);
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
