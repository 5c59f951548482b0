#pragma once

#include <velmora/plugin/export.h>

#include <string>

/// The video service's locks, JSON files and transcoding record. Nothing in it throws for a
/// failure: a failure is a result, and mostly a line in syslog.
namespace LibReelhouse {

/// A named lock between processes: an exclusive advisory lock, flock(2), on a file that exists for
/// this purpose. It excludes other holders of flock locks on the same file and nothing else, and
/// the kernel releases it when the holder dies, however it dies.
///
/// The lock belongs to the object, not to the process or thread: a thread that holds one and waits
/// for a second on the same path waits for itself for ever. One object is used by one thread at a
/// time. Nothing here throws because a lock could not be had; ask IsLockSucess().
///
/// The lock file's content is neither read nor written, and the file is never deleted. Its
/// descriptor is closed in programs that the process starts while it holds the lock.
class VELMORA_EXPORT Lock {
 public:
  /// Takes the lock. `path` must hold a "/"; a relative path is relative to the working directory.
  /// With `block` true it waits as long as another holder has the lock, and signals do not end the
  /// wait; with `block` false it gives up at once.
  Lock(const std::string& path, bool block);
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  /// Releases the lock.
  virtual ~Lock();

  /// What the constructor does, and nothing else calls: creates the directory (mode 0755, with its
  /// parents) and the lock file (mode 0644 less the umask) where they are missing, and locks the
  /// file. True when the lock is held. A path without "/" and a directory that cannot be created
  /// are logged; a file that cannot be opened or locked is not. A FIFO or a device in the file's
  /// place cannot be opened.
  bool LockFile();

  /// True while the lock is held. The spelling stays: hosts link to this name.
  bool IsLockSucess() const;

  /// Releases the lock before the object ends. Harmless when nothing is held; there is no way to
  /// lock again with the same object.
  void UnlockFile();

 private:
  // The open lock file; negative whenever none is open.
  int fd;

  std::string path;

  bool block;

  // What flock said at construction; stays as it is after a release.
  bool locked;
};

}  // namespace LibReelhouse
