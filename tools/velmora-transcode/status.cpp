#include <fmt/format.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>
#include <velmora-plugin-platform/platform.h>

#include <stdexcept>
#include <string>

#include "commands.h"
#include "common/console.h"
#include "common/text.h"

namespace velmora::tool {

namespace {

using LibReelhouse::TransLoading;
using librh::util::PlatformUtils;

const char* YesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace

int Status(const Options& options) {
  PlatformUtils& machine = *PlatformUtils::GetInst();
  bool transcode = false;
  bool remux = false;
  bool hardware = false;
  LibReelhouse::GetMachineTranscodeAndRemux(transcode, remux, hardware);

  Json::Value document;
  document["platform"] = JsonText(machine.GetPlatform());
  document["model"] = JsonText(machine.GetModel());
  document["transcoder_name"] = JsonText(machine.GetTransPlatformName());
  Json::Value& can = document["capabilities"];
  can["transcode"] = transcode;
  can["remux"] = remux;
  can["hardware_transcode"] = hardware;
  can["hardware_setting"] = machine.IsHWSettingEnabled();
  can["vaapi"] = machine.IsSupportVaapi();
  can["omx"] = machine.IsSupportOMX();
  can["gstreamer"] = machine.IsSupportGstreamer();
  can["forced_ffmpeg"] = LibReelhouse::ForceFFmpegTranscoding();
  const bool inference_engine = plugin::platform::IsSupportedIENetwork();
  Json::Value& engines = document["engines"];
  engines["OpenCV dnn"].append("CPU");
  engines["Inference Engine"] = Json::arrayValue;
  if (inference_engine) {
    engines["Inference Engine"].append("CPU");
    if (plugin::platform::IsSupportedIENetworkGpu()) {
      engines["Inference Engine"].append("GPU");
    }
  }
  engines["TensorFlow Lite"] = Json::arrayValue;
  if (plugin::platform::IsSupportedTFLiteNetwork()) {
    engines["TensorFlow Lite"].append("CPU");
  }
  bool locked = false;
  {
    const TransLoading record;
    locked = record.IsLockSucess();
    document["limits"]["software"] = record.GetLimit(false);
    document["limits"]["hardware"] = record.GetLimit(true);
    document["transcoding"] = locked ? ListEntries(record.GetEntries()) : Json::Value();
  }
  if (options.json) {
    PrintJson(document);
  } else {
    const auto known = [](const Json::Value& text) {
      return text.asString().empty() ? std::string("unknown") : OneLine(text.asString());
    };
    Print(fmt::format("platform      {}\n", known(document["platform"])));
    Print(fmt::format("model         {}\n", known(document["model"])));
    Print(fmt::format("transcoder    {}\n", known(document["transcoder_name"])));
    Print(fmt::format("can           transcode: {}, remux: {}, transcode with hardware: {}\n",
                      YesNo(transcode), YesNo(remux), YesNo(hardware)));
    Print(fmt::format("acceleration  VA-API: {}, OMX: {}, GStreamer: {}, switched on: {}\n",
                      YesNo(can["vaapi"].asBool()), YesNo(can["omx"].asBool()),
                      YesNo(can["gstreamer"].asBool()), YesNo(can["hardware_setting"].asBool())));
    for (const std::string& engine : engines.getMemberNames()) {
      std::string devices;
      for (const Json::Value& device : engines[engine]) {
        devices += " " + device.asString();
      }
      Print(fmt::format("{:<18}{}\n", engine, devices.empty() ? " not supported" : devices));
    }
    Print(fmt::format("limits        software: {}, hardware: {}\n\n",
                      document["limits"]["software"].asUInt(),
                      document["limits"]["hardware"].asUInt()));
    if (locked) {
      PrintEntries(document["transcoding"]);
    }
  }
  if (!locked) {
    throw std::runtime_error("the transcoding record cannot be locked; syslog may say more");
  }
  return kDone;
}

}  // namespace velmora::tool
