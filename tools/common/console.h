// What a program prints: results on standard output, errors and progress on standard error.
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
  // As shells and env(1) report on a command that they run.
  kNotStarted = 125,
  kCommandNotRunnable = 126,
  kCommandNotFound = 127
};

/// Columns of the terminal on this descriptor; 0 when it is not a terminal.
int TerminalWidth(int descriptor);

/// Write to standard output, which is for results only. Throw std::system_error if that fails.
void Print(std::string_view text);
void FlushOutput();

/// Prints the document. Its strings must be UTF-8, see JsonText().
void PrintJson(const Json::Value& document);

/// Prints errors on standard error, one line each, and a progress bar if that is a terminal.
/// Ignores errors in doing so.
class Console {
 public:
  /// Prints "PROGRAM: subject: error" and remembers that there was an error.
  void Error(std::string_view subject, std::string_view error);
  bool any_error() const { return any_error_; }

  /// Prints "PROGRAM: text".
  void Say(std::string_view text);

  /// Draws the bar, once the work has taken long enough for a user to wonder.
  void ShowProgress(std::size_t done, std::size_t total);

  /// Removes the bar. To be called before anything else is printed.
  void ClearProgress();

 private:
  using Clock = std::chrono::steady_clock;

  bool any_error_ = false;
  bool bar_shown_ = false;
  Clock::time_point next_draw_ = Clock::now() + std::chrono::milliseconds(300);
};

}  // namespace velmora::tool
