#include <fmt/format.h>
#include <reelhouse/trans_loading.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "commands.h"
#include "common/console.h"
#include "common/text.h"

namespace velmora::tool {

namespace {

using LibReelhouse::TransLoading;

void CheckLocked(const TransLoading& record) {
  if (!record.IsLockSucess()) {
    throw std::runtime_error("the transcoding record cannot be locked; syslog may say more");
  }
}

/// The name of a process's program; empty if the process has just ended.
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

/// Whether a new transaction finds an entry of the process. It drops entries without a process.
bool IsRegistered(int pid) {
  const TransLoading record;
  const Json::Value& entries = record.GetEntries();
  return std::any_of(entries.begin(), entries.end(),
                     [pid](const Json::Value& entry) { return entry["PID"].asInt() == pid; });
}

}  // namespace

std::vector<Entry> ListEntries(const Json::Value& record) {
  std::vector<Entry> entries;
  for (const Json::Value& entry : record) {
    const int pid = entry["PID"].asInt();
    entries.push_back({pid, CommandOf(pid), IsTrue(entry, "hardware_transcode"),
                       IsTrue(entry, "offline_conversion")});
  }
  return entries;
}

Json::Value ToJson(const std::vector<Entry>& entries) {
  Json::Value list(Json::arrayValue);
  for (const Entry& entry : entries) {
    Json::Value& item = list.append(Json::objectValue);
    item["pid"] = entry.pid;
    item["command"] = JsonText(entry.program);
    item["hardware"] = entry.hardware;
    item["offline"] = entry.offline;
  }
  return list;
}

void PrintTable(const std::vector<Entry>& entries) {
  if (entries.empty()) {
    Print("nothing is transcoding\n");
    return;
  }
  Print(fmt::format("{:>10}  {:<8}  {:<7}  {}\n", "PID", "uses", "offline", "program"));
  for (const Entry& entry : entries) {
    Print(fmt::format("{:>10}  {:<8}  {:<7}  {}\n", entry.pid,
                      entry.hardware ? "hardware" : "software", entry.offline ? "yes" : "no",
                      OneLine(entry.program)));
  }
}

int List(const Options& options) {
  std::vector<Entry> entries;
  {
    const TransLoading record;
    CheckLocked(record);
    entries = ListEntries(record.GetEntries());
  }
  if (options.json) {
    PrintJson(ToJson(entries));
  } else {
    PrintTable(entries);
  }
  return kDone;
}

int Admit(const Options& options) {
  bool admitted = false;
  {
    TransLoading record;
    CheckLocked(record);
    admitted = record.TransEnable(options.hardware);
  }
  Print(admitted ? "yes\n" : "no\n");
  return admitted ? kDone : kNotAllDone;
}

int Add(const Options& options) {
  {
    TransLoading record;
    CheckLocked(record);
    record.SaveTransPID(options.pid, options.hardware, options.offline);
  }
  if (!IsRegistered(options.pid)) {
    throw std::runtime_error(
        std::filesystem::exists(fmt::format("/proc/{}", options.pid))
            ? std::string("the transcoding record could not be written; syslog may say more")
            : fmt::format("{}: no such process", options.pid));
  }
  return kDone;
}

int Remove(const Options& options) {
  TransLoading record;
  CheckLocked(record);
  record.RemoveTransPIDLock(options.pid);
  return kDone;
}

/// Registers this process and becomes the command, so that the entry ends with the command,
/// whatever ends it, and no other process waits for it.
int RunCommand(const Options& options) {
  const int self = getpid();
  const std::string& name = options.command[0];
  {
    TransLoading record;
    CheckLocked(record);
    if (!record.TransEnable(options.hardware)) {
      Console().Say(fmt::format("{}: not started, no {} transcode may start now", name,
                                options.hardware ? "hardware" : "software"));
      return kNotStarted;
    }
    record.SaveTransPID(self, options.hardware, options.offline);
  }
  if (!IsRegistered(self)) {
    Console().Say(fmt::format(
        "{}: not started, the transcoding record could not be written; syslog may say more", name));
    return kNotStarted;
  }
  std::vector<std::string> words = options.command;
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  TransLoading().RemoveTransPIDLock(self);
  Console().Say(fmt::format("{}: {}", name, std::strerror(error)));
  return error == ENOENT ? kCommandNotFound : kCommandNotRunnable;
}

}  // namespace velmora::tool
