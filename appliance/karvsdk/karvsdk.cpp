#include "karvsdk/karvsdk.h"

#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <string>
#include <vector>

namespace {

/// Creates one directory and adds it to `made`, unless it exists already. Sets errno on failure.
bool MakeOne(const std::string& path, mode_t mode, std::vector<std::string>& made) {
  made.push_back(path);
  // The owner needs access until everything below exists.
  if (mkdir(path.c_str(), mode | S_IRWXU) == 0) {
    return true;
  }
  made.pop_back();
  const int error = errno == EEXIST ? ENOTDIR : errno;
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    return true;
  }
  errno = error;
  return false;
}

bool MakeAll(const std::string& path, mode_t mode, std::vector<std::string>& made) {
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  std::size_t begin = path.find_first_not_of('/');
  while (begin != std::string::npos) {
    const std::size_t end = path.find('/', begin);
    if (!MakeOne(path.substr(0, end), mode, made)) {
      return false;
    }
    begin = path.find_first_not_of('/', end);
  }
  return true;
}

}  // namespace

int KARVFSMkdirP(const char* path, int, int, unsigned, unsigned, unsigned mode) try {
  std::vector<std::string> made;
  int error = MakeAll(path == nullptr ? "" : path, mode, made) ? 0 : errno;
  // Starts at the deepest directory, because `mode` may deny the owner access.
  for (std::size_t i = made.size(); i-- > 0;) {
    if (chmod(made[i].c_str(), mode) != 0 && error == 0) {
      error = errno;
    }
  }
  errno = error;
  return error == 0 ? 0 : -1;
} catch (const std::exception&) {
  errno = ENOMEM;
  return -1;
}
