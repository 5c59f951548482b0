#pragma once

#include <velmora/plugin/export.h>

#include <string>

/// The video service's view of the machine.
namespace librh::util {

/// Which appliance this is and what it can do for transcoding.
///
/// The platform codename and the model are read once per process, from the key "unique" of
/// "/etc.defaults/karvinfo.conf". If that fails they are empty, and every question about the
/// platform is answered with false. All functions may be called from several threads at once. None
/// of them throws because of what a file contains.
class VELMORA_EXPORT PlatformUtils {
 public:
  /// Returns the only instance in the process, which the first call creates. Never null; the caller
  /// must not delete it. Usable until the process destroys its static objects.
  static PlatformUtils* GetInst();

  /// Only for GetInst(): every other object reads the system information again.
  PlatformUtils();
  PlatformUtils(const PlatformUtils&) = delete;
  PlatformUtils& operator=(const PlatformUtils&) = delete;
  ~PlatformUtils();

  /// Reads the system information. Only the constructor calls this.
  void GetPlatformAndModelName();

  /// Returns the codename, such as "apollolake", or "" if unknown. Valid as long as the object.
  const std::string& GetPlatform() const { return platform; }

  /// Returns the model, such as "vb52s", or "" if unknown. Valid as long as the object.
  const std::string& GetModel() const { return model; }

  /// Returns the first line of "/proc/karv_platform" unchanged, or "" if it cannot be opened.
  std::string GetHostPlatformName();

  /// Finds the first line of "/proc/cpuinfo" that contains exactly one colon and, before it, `key`,
  /// and returns what follows the colon, including leading blanks. Returns "" if there is none. An
  /// empty key and a file that cannot be opened are logged.
  std::string GetCPUInfo(const std::string& key);

  /// Returns the name of this machine in the transcoder's tuning: a platform, "_" and a core class,
  /// 1 or 2 (more than one core). Returns "x86_1" for an unknown machine.
  std::string GetTransPlatformName();

  /// Always returns "", so that callers use their own default.
  std::string GetFFmpegPath();

  /// Always returns "", so that callers use their own default.
  std::string GetGstreamerPath();

  bool IsEvansport();   ///< The platform is "evansport".
  bool IsBraswell();    ///< The platform is "braswell".
  bool IsMonaco();      ///< The platform is "monaco".
  bool IsApolloLake();  ///< The platform is "apollolake".
  bool IsGeminiLake();  ///< The platform is "geminilake".

  /// Whether media acceleration uses VA-API.
  bool IsSupportVaapi();

  bool IsRTD1296();  ///< The platform is "rtd1296".

  /// Whether the hardware codec is driven through OMX: models vb31, vb52, vb52s, vb74 and qb9 of
  /// the platform "rtd1296".
  bool IsSupportOMX();

  /// Whether the machine has a hardware transcoder, enabled or not.
  bool IsSupportHWTranscode();

  /// Whether the transcoder is a GStreamer pipeline: on "monaco", and where IsSupportOMX() is true.
  bool IsSupportGstreamer();

  bool IsAlpine();  ///< The platform is "alpine" or "alpine4k".

  /// Whether the transcoder is tuned as for "avoton": on that platform and on those whose names
  /// begin with "broadwell" or "grantley".
  bool IsAvotonProfile();

  bool IsFFmpeg2();  ///< The platform is "evansport", "rtd1296" or "monaco".

  /// Whether there is a hardware transcoder that the user has not disabled. The setting is the
  /// boolean "hardware_transcode" in the JSON object "/var/packages/Reelhouse/etc/advanced.conf".
  /// Each call reads it under a shared lock, but only on platforms that can also transcode without
  /// hardware.
  bool IsHWSettingEnabled();

  /// IsHWSettingEnabled() on a VA-API platform, otherwise false.
  bool IsVaapiFFmpegEnabled();

 private:
  std::string platform;
  std::string model;
  std::string reserved;  // always empty, but part of the object's layout
};

}  // namespace librh::util
