// What a program writes: results to standard output; errors and progress to standard error.
#pragma once

#include <json/json.h>

#include <chrono>
#include <string_view>

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

/// Columns of the terminal on this descriptor; 0 when it is not a terminal.
int TerminalWidth(int descriptor);

/// Standard output, which carries results only. Both throw std::system_error when it takes no more.
void Print(std::string_view text);
void FlushOutput();

/// Prints the document. Its strings must be UTF-8, see JsonText().
void PrintJson(const Json::Value& document);

/// Standard error: errors, one line each, and a progress bar when it is a terminal. What cannot be
/// written there is lost, and nothing else.
class Console {
 public:
  /// Writes "PROGRAM: subject: error" and remembers that not all was done.
  void Error(std::string_view subject, std::string_view error);
  bool any_error() const { return any_error_; }

  /// Writes "PROGRAM: text".
  void Say(std::string_view text);

  /// Shows the bar, once the work has lasted long enough for a user to wonder.
  void ShowProgress(std::size_t done, std::size_t total);

  /// Takes the bar away, before anything else is written.
  void ClearProgress();

 private:
  using Clock = std::chrono::steady_clock;

  bool any_error_ = false;
  bool bar_shown_ = false;
  Clock::time_point next_draw_ = Clock::now() + std::chrono::milliseconds(300);
};

}  // namespace velmora::tool
