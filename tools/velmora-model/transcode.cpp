#include <fmt/format.h>
#include <json/json.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora-plugin-platform/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "common.h"

namespace velmora::tool {

namespace {

using LibReelhouse::TransLoading;
using librh::util::PlatformUtils;

void CheckLocked(const TransLoading& record) {
  if (!record.IsLockSucess()) {
    throw std::runtime_error("the transcoding record cannot be locked; syslog may say more");
  }
}

/// The name of a process's program; empty when it has just ended.
std::string CommandOf(int pid) {
  std::ifstream file(fmt::format("/proc/{}/comm", pid));
  std::string name;
  std::getline(file, name);
  return name;
}

bool IsTrue(const Json::Value& entry, const char* name) {
  const Json::Value& flag = entry[name];
  return flag.isBool() && flag.asBool();
}

/// The entries of the record for the user: what the record says of each, and its program.
Json::Value ListEntries(const Json::Value& entries) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& entry : entries) {
    const int pid = entry["PID"].asInt();
    Json::Value& item = list.append(Json::objectValue);
    item["pid"] = pid;
    item["command"] = JsonText(CommandOf(pid));
    item["hardware"] = IsTrue(entry, "hardware_transcode");
    item["offline"] = IsTrue(entry, "offline_conversion");
  }
  return list;
}

void PrintEntries(const Json::Value& list) {
  if (list.empty()) {
    Print("nothing is transcoding\n");
    return;
  }
  Print(fmt::format("{:>10}  {:<8}  {:<7}  {}\n", "PID", "uses", "offline", "program"));
  for (const Json::Value& item : list) {
    Print(fmt::format("{:>10}  {:<8}  {:<7}  {}\n", item["pid"].asInt(),
                      item["hardware"].asBool() ? "hardware" : "software",
                      item["offline"].asBool() ? "yes" : "no",
                      OneLine(item["command"].asString())));
  }
}

int List(const TranscodeOptions& options) {
  Json::Value list;
  {
    const TransLoading record;
    CheckLocked(record);
    list = ListEntries(record.GetEntries());
  }
  if (options.json) {
    PrintJson(list);
  } else {
    PrintEntries(list);
  }
  return kDone;
}

int Admit(const TranscodeOptions& options) {
  bool admitted = false;
  {
    TransLoading record;
    CheckLocked(record);
    admitted = record.TransEnable(options.hardware);
  }
  Print(admitted ? "yes\n" : "no\n");
  return admitted ? kDone : kNotAllDone;
}

int Add(const TranscodeOptions& options) {
  {
    TransLoading record;
    CheckLocked(record);
    record.SaveTransPID(options.pid, options.hardware, options.offline);
  }
  // The next transaction drops what names no process.
  const TransLoading record;
  const Json::Value& entries = record.GetEntries();
  if (std::none_of(entries.begin(), entries.end(), [&options](const Json::Value& entry) {
        return entry["PID"].asInt() == options.pid;
      })) {
    throw std::runtime_error(
        std::filesystem::exists(fmt::format("/proc/{}", options.pid))
            ? std::string("the transcoding record could not be written; syslog may say more")
            : fmt::format("{}: no such process", options.pid));
  }
  return kDone;
}

int Remove(const TranscodeOptions& options) {
  TransLoading record;
  CheckLocked(record);
  record.RemoveTransPIDLock(options.pid);
  return kDone;
}

/// Waits for the end of a child and hands on to it the signals that ask this process to end, which
/// are in `handled` with SIGCHLD and blocked. Returns the status as of waitpid().
int WaitAndHandOn(pid_t child, const sigset_t& handled) {
  for (;;) {
    siginfo_t info;
    if (sigwaitinfo(&handled, &info) < 0) {
      continue;
    }
    // What comes from the kernel is a key on the terminal, and the child has had it too.
    if (info.si_signo != SIGCHLD && info.si_code != SI_KERNEL) {
      kill(child, info.si_signo);
    }
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      return status;
    }
  }
}

int RunCommand(const TranscodeOptions& options) {
  sigset_t handled;
  sigset_t before;
  sigemptyset(&handled);
  for (const int number : {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    sigaddset(&handled, number);
  }

  // Whoever started this program may ignore the end of children, which is inherited.
  static_cast<void>(signal(SIGCHLD, SIG_DFL));

  const int self = getpid();
  {
    TransLoading record;
    CheckLocked(record);
    if (!record.TransEnable(options.hardware)) {
      Console().Say(fmt::format("{}: not started, no {} transcode may start now",
                                options.command[0], options.hardware ? "hardware" : "software"));
      return kNotStarted;
    }
    // From here on no signal ends this process, and one that comes is handed on to the command. Not
    // earlier, so that the wait for the record can be broken off.
    sigprocmask(SIG_BLOCK, &handled, &before);
    record.SaveTransPID(self, options.hardware, options.offline);
  }
  const pid_t child = StartProcess(options.command, before);
  int status = 0;
  if (child < 0) {
    Console().Say(fmt::format("{}: {}", options.command[0], std::strerror(-child)));
    status = child == -ENOENT ? kCommandNotFound : kCommandNotRunnable;
  } else {
    const int ended = WaitAndHandOn(child, handled);
    status = WIFSIGNALED(ended) ? 128 + WTERMSIG(ended) : WEXITSTATUS(ended);
  }
  // A signal may end the process now: the next transaction would drop its entry.
  sigprocmask(SIG_SETMASK, &before, nullptr);
  TransLoading record;
  record.RemoveTransPIDLock(self);
  return status;
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace

int Transcode(const TranscodeOptions& options) {
  switch (options.action) {
    case TranscodeOptions::Action::kList:
      return List(options);
    case TranscodeOptions::Action::kAdmit:
      return Admit(options);
    case TranscodeOptions::Action::kAdd:
      return Add(options);
    case TranscodeOptions::Action::kRemove:
      return Remove(options);
    case TranscodeOptions::Action::kRun:
      return RunCommand(options);
  }
  return kWrongUsage;
}

int Status(bool json) {
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
  if (json) {
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
