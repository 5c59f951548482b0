#pragma once

#include <string>

namespace LibReelhouse {

/// The values count: the flock operation is mode + 1.
enum class LockMode { Read = 0, Write = 1 };

/// Holds a lock on a JSON file itself while the file is read (shared) or written (exclusive). It
/// always waits for the lock. A failure to open or to lock is not reported: the guarded read or
/// write goes ahead without.
class JsonFileLock {
 public:
  /// LockMode::Write creates a missing file, so that the lock is on it before it is written.
  JsonFileLock(LockMode mode, std::string file);
  JsonFileLock(const JsonFileLock&) = delete;
  JsonFileLock& operator=(const JsonFileLock&) = delete;
  ~JsonFileLock();

 private:
  std::string path;
  int fd;
  bool locked;
};

}  // namespace LibReelhouse
