// The commands. Each returns the exit status, and throws std::exception if the record cannot be
// locked or standard output fails.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace velmora::tool {

struct Options {
  bool json = false;
  bool hardware = false;
  bool offline = false;
  int pid = 0;
  std::vector<std::string> command;
};

int List(const Options& options);
int Admit(const Options& options);
int Add(const Options& options);
int Remove(const Options& options);
int RunCommand(const Options& options);
int Status(const Options& options);

/// An entry of the record.
struct Entry {
  int pid = 0;
  std::string program;  // empty if the process has just ended
  bool hardware = false;
  bool offline = false;
};

std::vector<Entry> ListEntries(const Json::Value& record);
Json::Value ToJson(const std::vector<Entry>& entries);
void PrintTable(const std::vector<Entry>& entries);

}  // namespace velmora::tool
