#pragma once

#include <json/value.h>
#include <reelhouse/lock.h>
#include <velmora/plugin/export.h>

#include <cstdint>

namespace LibReelhouse {

/// One transaction on the record of the processes that are transcoding now,
/// "/tmp/Reelhouse/enabled": a JSON array with one object for each, {"PID": integer,
/// "hardware_transcode": boolean, "offline_conversion": boolean}.
///
/// The constructor waits for the record's exclusive lock, loads the record and drops what does not
/// name a process that exists; the operations ask or change the copy in memory; the destructor
/// writes the copy back, changed or not, and releases the lock. Every other user of the record on
/// the machine waits meanwhile, so keep an object no longer than it takes: construct it on the
/// stack, ask, let it go. What TransEnable() answers cannot be overtaken before SaveTransPID() of
/// the same object.
///
/// A thread that holds one object and constructs a second waits for itself for ever. One object is
/// used by one thread at a time.
///
/// Nothing here throws for a failure. Where the lock could not be had (see IsLockSucess()), the
/// object is empty, the operations that need the lock write a line to syslog and return false, and
/// the destructor leaves the file alone. A record that cannot be read as an array counts as empty
/// and is replaced by the destructor. Because the record is rewritten in place, a process that is
/// killed in the middle of that, or a full disk, leaves it empty.
class VELMORA_EXPORT TransLoading : public Lock {
 public:
  TransLoading();

  /// Writes the record back and lets every user open it (mode 0666).
  ~TransLoading() override;

  /// What the constructor does once it holds the lock: appends the live entries of the record to
  /// the object's list. False when there is no record or it does not parse.
  bool ReadAndCheckAlive();

  /// The live entries, each an object, in the order of the file; then those added here. Valid as
  /// long as this object, and until the next operation that changes it.
  const Json::Value& GetEntries() const { return loading; }

  /// How many transcodes of a kind may run at once on this machine.
  std::uint32_t GetLimit(bool hardware) const { return hardware ? hardware_limit : software_limit; }

  /// True when a process transcodes with hardware now. Needs the lock.
  bool IsHardwareTranscoding() const;

  /// True when an offline conversion runs now. Needs the lock. The spelling stays: hosts link to
  /// this name.
  bool IsOffineConverting() const;

  /// True when one more transcode of that kind stays within the machine's limit. An entry without a
  /// boolean "hardware_transcode" counts for neither kind.
  bool CheckTransEnable(bool hardware) const;

  /// CheckTransEnable(false).
  bool SoftwareTransEnable() const;

  /// CheckTransEnable(true), and false on a machine that cannot transcode with hardware.
  bool HardwareTransEnable() const;

  /// Whether a transcode of that kind may start now. On an idle machine one always may, even where
  /// the software limit is 0 (but none with hardware where there is no such hardware); as soon as
  /// anything transcodes, the limits hold. Needs the lock.
  bool TransEnable(bool hardware);

  /// Adds an entry; a second one for the same `pid` is another entry. Needs the lock.
  bool SaveTransPID(int pid, bool hardware, bool offline);

  /// Removes all entries of `pid`, and is content when there is none. Needs the lock.
  bool RemoveTransPIDLock(int pid);

 private:
  // Always an array of objects: the live entries in the order of the file, then those added here.
  Json::Value loading;

  std::uint32_t software_limit;
  std::uint32_t hardware_limit;
};

/// What this machine can do: transcode at all, repackage without transcoding, transcode with
/// hardware. On a machine whose codec is driven through OMX this runs the platform's factory-data
/// tool and waits for it; such a machine does not transcode while it is in factory mode.
VELMORA_EXPORT void GetMachineTranscodeAndRemux(bool& canTranscode, bool& canRemux,
                                                bool& canHardwareTranscode);

/// True on machines that have no GStreamer pipeline and must transcode with FFmpeg.
VELMORA_EXPORT bool ForceFFmpegTranscoding();

}  // namespace LibReelhouse
