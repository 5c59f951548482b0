#pragma once

#include <velmora/plugin/export.h>

#include <string>

/// The video service's locks, JSON files and transcoding record. Nothing here throws on failure:
/// functions return failures as results, and most failures are also logged to syslog.
namespace LibReelhouse {

/// An inter-process lock with a name: an exclusive advisory flock(2) lock on a file that exists
/// only for this purpose. It excludes only other holders of flock locks on the same file. The
/// kernel releases it when the process that holds it ends, for whatever reason.
///
/// The lock belongs to the object, not to the process or thread: a thread that holds a lock and
/// waits for a second one on the same path deadlocks. An object must not be used by two threads at
/// once. The constructor does not throw if it cannot get the lock; call IsLockSucess() to find out.
///
/// This class never reads, writes or deletes the lock file. The descriptor is close-on-exec.
class VELMORA_EXPORT Lock {
 public:
  /// Takes the lock. `path` must contain a "/"; a relative path is relative to the working
  /// directory. If `block` is true, waits as long as another holder has the lock; signals do not
  /// end the wait. If `block` is false, gives up at once.
  Lock(const std::string& path, bool block);
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  virtual ~Lock();

  /// Creates the directory (mode 0755, with its parents) and the lock file (mode 0644 minus the
  /// umask) if they do not exist, locks the file, and returns true if the lock is held. Only the
  /// constructor calls this. A path without "/" and a directory that cannot be created are logged;
  /// a file that cannot be opened or locked is not. FIFOs and devices cannot be opened.
  bool LockFile();

  /// Returns true while the lock is held. Hosts link to this spelling.
  bool IsLockSucess() const;

  /// Releases the lock early. Does nothing if it is not held. The object cannot be locked again.
  void UnlockFile();

 private:
  int fd;  // negative if no lock file is open
  std::string path;
  bool block;
  bool locked;  // what flock said at construction; unlocking does not reset it
};

}  // namespace LibReelhouse
