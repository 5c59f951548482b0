#pragma once

#include <json/value.h>
#include <reelhouse/lock.h>
#include <velmora/plugin/export.h>

#include <cstdint>

namespace LibReelhouse {

/// One transaction on the record of all processes that are currently transcoding. The record is the
/// file "/tmp/Reelhouse/enabled", a JSON array with one object for each process: {"PID": integer,
/// "hardware_transcode": boolean, "offline_conversion": boolean}.
///
/// The constructor waits for an exclusive lock on the record, loads it and drops all entries that
/// do not name an existing process. The member functions query or change the copy in memory. The
/// destructor writes the copy back, changed or not, and releases the lock. All other users of the
/// record on the machine wait meanwhile, so construct the object on the stack and destroy it as
/// soon as possible. No other process can change the record between a TransEnable() and a
/// SaveTransPID() of the same object.
///
/// A thread that holds one object and constructs a second deadlocks. An object must not be used by
/// two threads at once.
///
/// Nothing here throws on failure. If the lock could not be obtained (see IsLockSucess()), the
/// object is empty, functions that need the lock write a line to syslog and return false, and the
/// destructor does not touch the file. A record that cannot be read as an array is treated as
/// empty, and the destructor replaces it. The record is rewritten in place, so it is left empty if
/// the process is killed during the write or the disk is full.
class VELMORA_EXPORT TransLoading : public Lock {
 public:
  TransLoading();

  /// Writes the record back and makes it readable and writable for all users (mode 0666).
  ~TransLoading() override;

  /// Appends the live entries of the record to the object's list. Only the constructor calls this,
  /// with the lock held. Returns false if there is no record or it does not parse as an array.
  bool ReadAndCheckAlive();

  /// Returns the live entries in the order of the file, followed by those added through this
  /// object. Each is a JSON object. Valid until the next change to this object.
  const Json::Value& GetEntries() const { return loading; }

  /// Returns how many transcodes of this kind may run at once on this machine.
  std::uint32_t GetLimit(bool hardware) const { return hardware ? hardware_limit : software_limit; }

  /// Whether a process is transcoding with hardware. Needs the lock.
  bool IsHardwareTranscoding() const;

  /// Whether an offline conversion is running. Needs the lock. Hosts link to this spelling.
  bool IsOffineConverting() const;

  /// Whether the machine's limit allows one more transcode of this kind. An entry without a boolean
  /// "hardware_transcode" counts for neither kind.
  bool CheckTransEnable(bool hardware) const;

  /// CheckTransEnable(false).
  bool SoftwareTransEnable() const;

  /// CheckTransEnable(true) on a machine that can transcode with hardware, otherwise false.
  bool HardwareTransEnable() const;

  /// Whether a transcode of this kind may start now. On an idle machine one always may, even if the
  /// software limit is 0, except that hardware transcoding needs the hardware. As soon as anything
  /// is transcoding, the limits apply. Needs the lock.
  bool TransEnable(bool hardware);

  /// Adds an entry, even if there is one for this `pid` already. Needs the lock.
  bool SaveTransPID(int pid, bool hardware, bool offline);

  /// Removes all entries of `pid`; it is not an error if there are none. Needs the lock.
  bool RemoveTransPIDLock(int pid);

 private:
  Json::Value loading;  // always an array of objects
  std::uint32_t software_limit;
  std::uint32_t hardware_limit;
};

/// Reports whether this machine can transcode at all, repackage without transcoding, and transcode
/// with hardware. Where IsSupportOMX() is true, this runs the platform's factory-data tool and
/// waits for it: such a machine does not transcode while it is in factory mode.
VELMORA_EXPORT void GetMachineTranscodeAndRemux(bool& canTranscode, bool& canRemux,
                                                bool& canHardwareTranscode);

/// Whether this machine has no GStreamer pipeline and must therefore transcode with FFmpeg.
VELMORA_EXPORT bool ForceFFmpegTranscoding();

}  // namespace LibReelhouse
