// What both commands need: files, faults, and all that is written for the user to read.
#pragma once

#include <json/json.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::tool {

enum ExitStatus {
  kDone = 0,
  kNotAllDone = 1,
  kWrongUsage = 2,
  kModelNotLoaded = 3,
  // Of a command that is run for the user, as shells and their like have them.
  kNotStarted = 125,
  kCommandNotRunnable = 126,
  kCommandNotFound = 127
};

/// Throws std::runtime_error (without the path) unless this is a readable file with something in
/// it.
void CheckReadable(const std::string& path);

/// The whole file; throws as CheckReadable() does.
std::string ReadFile(const std::string& path);

/// The exception that is being handled, whatever its type, as one short line.
std::string CurrentFault();

/// The text on one line that a terminal shows as it is: control characters and bytes that are not
/// UTF-8 become escapes such as "\n" and "\xff".
std::string OneLine(std::string_view text);

/// The columns that a text made by OneLine() takes on a terminal.
int Width(std::string_view text);

/// The end of a path, where paths differ, when the whole is wider than `width`.
std::string KeepEnd(std::string_view path, int width);

/// Columns of the terminal on this descriptor; 0 when it is not a terminal.
int TerminalWidth(int descriptor);

/// Standard output, which carries results only. Both throw std::system_error when it takes no more.
void Print(std::string_view text);
void FlushOutput();

/// Prints the document. Its strings must be UTF-8, see JsonText().
void PrintJson(const Json::Value& document);

/// The text with U+FFFD in place of each byte that is not UTF-8, which JSON cannot hold.
std::string JsonText(std::string_view text);

/// Starts a command that is found in PATH, with the given signals blocked in it. Returns its
/// process id, or minus the error number.
pid_t StartProcess(std::vector<std::string> command, const sigset_t& blocked);

/// Standard error: faults, one line each, and a progress bar when it is a terminal.
class Console {
 public:
  /// Writes "velmora-model: subject: fault" and remembers that not all was done.
  void Fault(std::string_view subject, std::string_view fault);
  bool any_fault() const { return any_fault_; }

  /// Writes "velmora-model: text".
  void Say(std::string_view text);

  /// Shows the bar, once the work has lasted long enough for a user to wonder.
  void ShowProgress(std::size_t done, std::size_t total);

  /// Takes the bar away, before anything else is written.
  void ClearProgress();

 private:
  using Clock = std::chrono::steady_clock;

  bool any_fault_ = false;
  bool bar_shown_ = false;
  Clock::time_point next_draw_ = Clock::now() + std::chrono::milliseconds(300);
};

}  // namespace velmora::tool
