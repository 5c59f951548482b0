#pragma once

#include <string>

namespace LibReelhouse {

/// The values matter: the flock operation is mode + 1.
enum class LockMode { Read = 0, Write = 1 };

/// Holds a lock on a JSON file itself while it is read (shared) or written (exclusive). Always
/// waits for the lock. If the file cannot be opened or locked, the caller continues without it.
class JsonFileLock {
 public:
  /// LockMode::Write creates a missing file, so that it is locked before it is written.
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
