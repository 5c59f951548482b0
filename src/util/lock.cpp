#include <karvsdk/karvsdk.h>
#include <reelhouse/lock.h>
#include <syslog.h>

#include <exception>

#include "util/file.h"

namespace LibReelhouse {

Lock::Lock(const std::string& file, bool wait) : fd(-1), path(file), block(wait), locked(false) {
  locked = LockFile();
}

Lock::~Lock() { UnlockFile(); }

bool Lock::LockFile() try {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    syslog(LOG_ERR, "%s:%d Find dir path failed %s", __FILE_NAME__, __LINE__, path.c_str());
    return false;
  }
  const std::string directory = path.substr(0, slash);
  struct stat status;
  if (stat(directory.c_str(), &status) != 0 &&
      KARVFSMkdirP(directory.c_str(), 0, 1, 1024, 100, 0755) < 0) {
    syslog(LOG_ERR, "%s:%d Fail to create dir [%s]", __FILE_NAME__, __LINE__, directory.c_str());
    return false;
  }
  fd = OpenFile(path.c_str(), O_RDONLY | O_CREAT, 0644);
  if (fd < 0) {
    return false;
  }
  return LockDescriptor(fd, block ? LOCK_EX : LOCK_EX | LOCK_NB) == 0;
} catch (const std::exception&) {
  return false;
}

bool Lock::IsLockSucess() const { return locked && fd >= 0; }

void Lock::UnlockFile() {
  if (fd < 0) {
    return;
  }
  if (locked) {
    flock(fd, LOCK_UN);
  }
  close(fd);
  fd = -1;
}

}  // namespace LibReelhouse
