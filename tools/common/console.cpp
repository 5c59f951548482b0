#include "common/console.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

#include "common/text.h"

namespace velmora::tool {

namespace {

/// The program goes on with its work if standard error is closed or full.
void WriteError(const std::string& text) { static_cast<void>(std::fputs(text.c_str(), stderr)); }

}  // namespace

int TerminalWidth(int descriptor) {
  winsize size{};
  if (isatty(descriptor) == 0) {
    return 0;
  }
  return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

void FlushOutput() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

void PrintJson(const Json::Value& document) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  builder["precision"] = 9;  // enough for any float
  Print(Json::writeString(builder, document) + "\n");
}

void Console::Error(std::string_view subject, std::string_view error) {
  any_error_ = true;
  Say(fmt::format("{}: {}", subject, error));
}

void Console::Say(std::string_view text) {
  ClearProgress();
  WriteError(fmt::format(VELMORA_PROGRAM ": {}\n", OneLine(text)));
}

void Console::ShowProgress(std::size_t done, std::size_t total) {
  const Clock::time_point now = Clock::now();
  const char* const terminal = std::getenv("TERM");
  if (now < next_draw_ || terminal == nullptr || std::string_view(terminal) == "dumb") {
    return;
  }
  next_draw_ = now + std::chrono::milliseconds(100);
  const std::string counts = fmt::format(" {} of {}", done, total);
  const int room = std::min(TerminalWidth(STDERR_FILENO) - 3 - Width(counts), 40);
  if (room < 1) {
    return;
  }
  const auto size = static_cast<std::size_t>(room);
  const std::string filled(size * done / total, '#');
  WriteError(fmt::format("\r[{:.<{}}]{}\x1b[K", filled, size, counts));
  bar_shown_ = true;
}

void Console::ClearProgress() {
  if (bar_shown_) {
    WriteError("\r\x1b[K");
    bar_shown_ = false;
  }
}

}  // namespace velmora::tool
