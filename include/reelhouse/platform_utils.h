#pragma once

#include <velmora/plugin/export.h>

#include <string>

/// The video service's view of the machine.
namespace librh::util {

/// Which appliance this is, and what it can do for transcoding.
///
/// The platform's codename and the model are read once in a process, from the key "unique" of
/// "/etc.defaults/karvinfo.conf", and most questions compare them with fixed strings. They stay
/// empty where that cannot be read: then every platform question answers false. All operations may
/// be called from any thread at once, and none throws because of what a file holds.
class VELMORA_EXPORT PlatformUtils {
 public:
  /// The one instance of the process, made by the first call; never null, and not the caller's to
  /// delete. Usable until the process destroys its static objects.
  static PlatformUtils* GetInst();

  /// For GetInst(): an object made otherwise reads the system information anew.
  PlatformUtils();
  PlatformUtils(const PlatformUtils&) = delete;
  PlatformUtils& operator=(const PlatformUtils&) = delete;
  ~PlatformUtils();

  /// What the constructor does.
  void GetPlatformAndModelName();

  /// The codename, such as "apollolake"; empty when unknown. Valid as long as the object.
  const std::string& GetPlatform() const { return platform; }

  /// The model, such as "vb52s"; empty when unknown. Valid as long as the object.
  const std::string& GetModel() const { return model; }

  /// First line of "/proc/karv_platform" as it stands; "" where that cannot be opened.
  std::string GetHostPlatformName();

  /// What follows the colon on the first line of "/proc/cpuinfo" that has exactly one colon and
  /// `key` somewhere before it; leading blanks stay. "" when there is none. An empty key and a file
  /// that cannot be opened are logged.
  std::string GetCPUInfo(const std::string& key);

  /// The name under which the transcoder's tuning knows this machine: a platform, "_" and a core
  /// class, 1 or 2 (more than one core). "x86_1" for a machine that it does not know.
  std::string GetTransPlatformName();

  /// Always empty: callers use their own default.
  std::string GetFFmpegPath();

  /// Always empty: callers use their own default.
  std::string GetGstreamerPath();

  bool IsEvansport();   ///< The platform is "evansport".
  bool IsBraswell();    ///< The platform is "braswell".
  bool IsMonaco();      ///< The platform is "monaco".
  bool IsApolloLake();  ///< The platform is "apollolake".
  bool IsGeminiLake();  ///< The platform is "geminilake".

  /// True where media acceleration is VA-API.
  bool IsSupportVaapi();

  bool IsRTD1296();  ///< The platform is "rtd1296".

  /// True where the hardware codec is driven through OMX: the models vb31, vb52, vb52s, vb74 and
  /// qb9 of the platform "rtd1296".
  bool IsSupportOMX();

  /// True where there is a hardware transcoder at all, switched on or not.
  bool IsSupportHWTranscode();

  /// True where the transcoder is a GStreamer pipeline: "monaco", and where the codec is driven
  /// through OMX.
  bool IsSupportGstreamer();

  bool IsAlpine();  ///< The platform is "alpine" or "alpine4k".

  /// True where the transcoder is tuned as for "avoton": on that platform, and on those whose names
  /// begin with "broadwell" or "grantley".
  bool IsAvotonProfile();

  bool IsFFmpeg2();  ///< The platform is "evansport", "rtd1296" or "monaco".

  /// True where there is a hardware transcoder and the user has not switched it off in
  /// "/var/packages/Reelhouse/etc/advanced.conf", a JSON object with the boolean
  /// "hardware_transcode". The file is read at every call, under a shared lock, and only on
  /// platforms that can transcode without hardware.
  bool IsHWSettingEnabled();

  /// IsHWSettingEnabled() on a VA-API platform; false on others.
  bool IsVaapiFFmpegEnabled();

 private:
  std::string platform;
  std::string model;

  // Always empty; it keeps the object's layout.
  std::string reserved;
};

}  // namespace librh::util
