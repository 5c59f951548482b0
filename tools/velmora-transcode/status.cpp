#include <fmt/ranges.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "commands.h"
#include "common/backends.h"
#include "common/console.h"
#include "common/text.h"

namespace velmora::tool {

namespace {

using LibReelhouse::TransLoading;
using librh::util::PlatformUtils;

struct Machine {
  std::string platform;
  std::string model;
  std::string transcoder;
  std::vector<std::pair<const char*, bool>> can;  // by their names in the JSON document
  std::vector<std::pair<const char*, std::vector<const char*>>> engines;  // and their devices
  unsigned software_limit = 0;
  unsigned hardware_limit = 0;
  bool locked = false;  // the record; if not, there are no entries
  std::vector<Entry> transcoding;
};

Machine LookAtMachine() {
  PlatformUtils& platform = *PlatformUtils::GetInst();
  bool transcode = false;
  bool remux = false;
  bool hardware = false;
  LibReelhouse::GetMachineTranscodeAndRemux(transcode, remux, hardware);

  Machine machine;
  machine.platform = platform.GetPlatform();
  machine.model = platform.GetModel();
  machine.transcoder = platform.GetTransPlatformName();
  machine.can = {{"transcode", transcode},
                 {"remux", remux},
                 {"hardware_transcode", hardware},
                 {"hardware_setting", platform.IsHWSettingEnabled()},
                 {"vaapi", platform.IsSupportVaapi()},
                 {"omx", platform.IsSupportOMX()},
                 {"gstreamer", platform.IsSupportGstreamer()},
                 {"forced_ffmpeg", LibReelhouse::ForceFFmpegTranscoding()}};
  for (const BackendInfo* const backend : kBackends) {
    std::vector<const char*> devices;
    if (backend->is_supported()) {
      devices.push_back("CPU");
      if (backend == &kInferenceEngine && plugin::platform::IsSupportedIENetworkGpu()) {
        devices.push_back("GPU");
      }
    }
    machine.engines.emplace_back(backend->name, devices);
  }
  const TransLoading record;
  machine.software_limit = record.GetLimit(false);
  machine.hardware_limit = record.GetLimit(true);
  machine.locked = record.IsLockSucess();
  if (machine.locked) {
    machine.transcoding = ListEntries(record.GetEntries());
  }
  return machine;
}

Json::Value ToJson(const Machine& machine) {
  Json::Value document;
  document["platform"] = JsonText(machine.platform);
  document["model"] = JsonText(machine.model);
  document["transcoder_name"] = JsonText(machine.transcoder);
  for (const auto& [name, holds] : machine.can) {
    document["capabilities"][name] = holds;
  }
  for (const auto& [name, devices] : machine.engines) {
    Json::Value& list = document["engines"][name] = Json::arrayValue;
    for (const char* const device : devices) {
      list.append(device);
    }
  }
  document["limits"]["software"] = machine.software_limit;
  document["limits"]["hardware"] = machine.hardware_limit;
  document["transcoding"] = machine.locked ? ToJson(machine.transcoding) : Json::Value();
  return document;
}

void PrintTable(const Machine& machine) {
  const auto known = [](const std::string& text) {
    return text.empty() ? std::string("unknown") : OneLine(text);
  };
  Print(fmt::format("platform      {}\n", known(machine.platform)));
  Print(fmt::format("model         {}\n", known(machine.model)));
  Print(fmt::format("transcoder    {}\n", known(machine.transcoder)));
  std::string can;
  for (const auto& [name, holds] : machine.can) {
    can += holds ? fmt::format("{}{}", can.empty() ? "" : ", ", name) : "";
  }
  std::replace(can.begin(), can.end(), '_', ' ');
  Print(fmt::format("can           {}\n", can));
  for (const auto& [name, devices] : machine.engines) {
    Print(fmt::format(
        "{:<18} {}\n", name,
        devices.empty() ? "not supported" : fmt::format("{}", fmt::join(devices, " "))));
  }
  Print(fmt::format("limits        software: {}, hardware: {}\n\n", machine.software_limit,
                    machine.hardware_limit));
  if (machine.locked) {
    PrintTable(machine.transcoding);
  }
}

}  // namespace

int Status(const Options& options) {
  const Machine machine = LookAtMachine();
  if (options.json) {
    PrintJson(ToJson(machine));
  } else {
    PrintTable(machine);
  }
  if (!machine.locked) {
    throw std::runtime_error("the transcoding record cannot be locked; syslog may say more");
  }
  return kDone;
}

}  // namespace velmora::tool
