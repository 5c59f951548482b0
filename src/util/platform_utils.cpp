#include <json/value.h>
#include <karvcore/karvcore.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/platform_utils.h>
#include <syslog.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <utility>
#include <vector>

#include "util/file.h"

namespace librh::util {
namespace {

/// Splits as std::getline does: two separators in a row enclose an empty token, but none follows a
/// separator at the end.
std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> tokens;
  std::istringstream stream(text);
  std::string token;
  while (std::getline(stream, token, separator)) {
    tokens.push_back(token);
  }
  return tokens;
}

/// Returns false if the file cannot be opened.
bool ReadLines(const char* path, std::vector<std::string>& lines) {
  const LibReelhouse::FileDescriptor file(LibReelhouse::OpenFile(path, O_RDONLY, 0));
  std::string text;
  static_cast<void>(LibReelhouse::ReadAll(file.fd, text));
  lines = Split(text, '\n');
  return file.fd >= 0;
}

}  // namespace

PlatformUtils* PlatformUtils::GetInst() {
  static PlatformUtils instance;
  return &instance;
}

PlatformUtils::PlatformUtils() { GetPlatformAndModelName(); }

PlatformUtils::~PlatformUtils() = default;

void PlatformUtils::GetPlatformAndModelName() try {
  char buffer[256] = {};
  if (KLIBCFileGetKeyValue("/etc.defaults/karvinfo.conf", "unique", buffer, sizeof buffer, 0) <=
      0) {
    return;
  }
  // The value is vendor_platform_model.
  std::vector<std::string> tokens = Split(buffer, '_');
  if (tokens.size() < 2) {
    return;
  }
  platform = std::move(tokens[1]);
  if (tokens.size() > 2) {
    model = std::move(tokens[2]);
  }
} catch (const std::exception&) {
  // Out of memory: the machine counts as unknown, so that GetInst() never fails.
}

std::string PlatformUtils::GetHostPlatformName() {
  std::vector<std::string> lines;
  return ReadLines("/proc/karv_platform", lines) && !lines.empty() ? lines[0] : "";
}

std::string PlatformUtils::GetCPUInfo(const std::string& key) {
  if (key.empty()) {
    syslog(LOG_ERR, "%s:%d Bad parameter", __FILE_NAME__, __LINE__);
    return "";
  }
  std::vector<std::string> lines;
  if (!ReadLines("/proc/cpuinfo", lines)) {
    syslog(LOG_ERR, "%s:%d Failed to open file [%s]", __FILE_NAME__, __LINE__, "/proc/cpuinfo");
    return "";
  }
  for (const std::string& line : lines) {
    const std::vector<std::string> tokens = Split(line, ':');
    if (tokens.size() == 2 && tokens[0].find(key) != std::string::npos) {
      return tokens[1];
    }
  }
  return "";
}

std::string PlatformUtils::GetTransPlatformName() {
  const bool alpine = platform.find("alpine") != std::string::npos;
  int cores = std::strtol(GetCPUInfo("cpu cores").c_str(), nullptr, 10) > 1 ? 2 : 1;
  if (platform == "monaco" || alpine || platform == "kvmx64" || platform == "rtd1296") {
    cores = 2;
  }
  std::string name;
  if (platform == "cedarview") {
    name = "cedarview";
  } else if (alpine) {
    name = "cedarview";
  } else if (platform == "kvmx64") {
    name = "cedarview";
  } else if (platform == "bromolow") {
    name = "bromolow";
  } else if (platform == "evansport") {
    if (IsHWSettingEnabled()) {
      name = "evansport";
    } else {
      name = "x86";
      cores = 1;
    }
  } else if (IsAvotonProfile()) {
    name = "avoton";
  } else if (IsSupportVaapi()) {
    name = "braswell";
  } else if (platform == "monaco") {
    name = "monaco";
  } else if (platform == "rtd1296") {
    name = "monaco";
  } else {
    name = "x86";
    cores = 1;
  }
  return name + "_" + std::to_string(cores);
}

std::string PlatformUtils::GetFFmpegPath() { return ""; }

std::string PlatformUtils::GetGstreamerPath() { return ""; }

bool PlatformUtils::IsEvansport() { return platform == "evansport"; }

bool PlatformUtils::IsBraswell() { return platform == "braswell"; }

bool PlatformUtils::IsMonaco() { return platform == "monaco"; }

bool PlatformUtils::IsApolloLake() { return platform == "apollolake"; }

bool PlatformUtils::IsGeminiLake() { return platform == "geminilake"; }

bool PlatformUtils::IsSupportVaapi() { return IsBraswell() || IsApolloLake() || IsGeminiLake(); }

bool PlatformUtils::IsRTD1296() { return platform == "rtd1296"; }

bool PlatformUtils::IsSupportOMX() {
  // Short enough for std::string's internal buffer, so that building the list cannot throw.
  static const std::array<std::string, 5> kOmxModels = {"vb31", "vb52", "vb52s", "vb74", "qb9"};
  if (!IsRTD1296()) {
    return false;
  }
  for (const std::string& omx_model : kOmxModels) {
    if (model == omx_model) {
      return true;
    }
  }
  return false;
}

bool PlatformUtils::IsSupportHWTranscode() {
  return IsEvansport() || IsMonaco() || IsSupportVaapi() || IsSupportOMX();
}

bool PlatformUtils::IsSupportGstreamer() { return IsMonaco() || IsSupportOMX(); }

bool PlatformUtils::IsAlpine() { return platform == "alpine" || platform == "alpine4k"; }

bool PlatformUtils::IsAvotonProfile() {
  return platform == "avoton" || platform.find("broadwell") == 0 || platform.find("grantley") == 0;
}

bool PlatformUtils::IsFFmpeg2() { return IsEvansport() || IsRTD1296() || IsMonaco(); }

bool PlatformUtils::IsHWSettingEnabled() try {
  // These can only transcode in hardware, whatever the user's setting.
  if (IsMonaco() || IsSupportOMX()) {
    return true;
  }
  if (!IsSupportHWTranscode()) {
    return false;
  }
  Json::Value settings;
  if (LibReelhouse::ReadJsonFromFile("/var/packages/Reelhouse/etc/advanced.conf", settings) &&
      settings.isObject() && settings.isMember("hardware_transcode") &&
      settings["hardware_transcode"].isBool()) {
    return settings["hardware_transcode"].asBool();
  }
  return true;
} catch (const std::exception&) {
  return true;  // as if the settings could not be read
}

bool PlatformUtils::IsVaapiFFmpegEnabled() { return IsSupportVaapi() && IsHWSettingEnabled(); }

}  // namespace librh::util
