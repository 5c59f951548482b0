#include "karvcore/karvcore.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kBlanks = " \t\r\n\f\v";

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return text.substr(0, 0);
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// `text` is everything after the "=".
std::string_view Value(std::string_view text) {
  const std::string_view trimmed = Trim(text);
  if (!trimmed.empty() && (trimmed.front() == '"' || trimmed.front() == '\'')) {
    const std::size_t end = trimmed.find(trimmed.front(), 1);
    if (end != std::string_view::npos) {
      return trimmed.substr(1, end - 1);
    }
  }
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '#' && kBlanks.find(text[i - 1]) != std::string_view::npos) {
      return Trim(text.substr(0, i));
    }
  }
  return trimmed;
}

}  // namespace

int KLIBCProcAlive(int pid) {
  // Unlike kill(), this accepts neither process groups nor threads other than a process's first.
  return tgkill(pid, pid, 0) == 0 || errno == EPERM ? 1 : 0;
}

int KLIBCFileExist(const char* path) {
  struct stat status;
  return path != nullptr && stat(path, &status) == 0 ? 1 : 0;
}

int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  if (path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const char* const given[] = {path, arg1, arg2, arg3, arg4, nullptr};
  // posix_spawn() takes writable strings.
  char* arguments[6] = {};
  for (int i = 0; given[i] != nullptr; ++i) {
    arguments[i] = const_cast<char*>(given[i]);
  }

  posix_spawnattr_t attributes;
  int error = posix_spawnattr_init(&attributes);
  if (error != 0) {
    errno = error;
    return -1;
  }
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t child = -1;
  error = posix_spawn(&child, path, nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    errno = error;
    return -1;
  }

  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int KLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int) {
  if (file == nullptr || key == nullptr || *key == '\0' || buffer == nullptr || size < 1) {
    errno = EINVAL;
    return -1;
  }
  // With O_NONBLOCK, a FIFO reads as an empty file instead of blocking.
  const int fd = open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  FILE* const stream = fd < 0 ? nullptr : fdopen(fd, "r");
  if (stream == nullptr) {
    if (fd >= 0) {
      close(fd);
    }
    return -1;
  }
  char* text = nullptr;
  std::size_t capacity = 0;
  int result = 0;
  errno = 0;
  ssize_t length = 0;
  while (result == 0 && (length = getline(&text, &capacity, stream)) >= 0) {
    const std::string_view line(text, static_cast<std::size_t>(length));
    const std::size_t equals = line.find('=');
    const std::string_view name = Trim(line.substr(0, equals));
    if (equals == std::string_view::npos || name != key || name.front() == '#') {
      continue;
    }
    const std::string_view value = Value(line.substr(equals + 1));
    const std::size_t kept = std::min(value.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, value.data(), kept);
    buffer[kept] = '\0';
    result = static_cast<int>(kept) + 1;
  }
  if (result == 0 && feof(stream) == 0) {
    result = -1;  // a read error, or a line that does not fit into memory
  }
  const int error = errno;
  free(text);
  static_cast<void>(fclose(stream));  // was only read
  errno = error;
  return result;
}
