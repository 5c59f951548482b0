#pragma once

#include <fmt/format.h>

#include <concepts>
#include <source_location>
#include <string>
#include <string_view>

namespace velmora::plugin::network {

/// A {fmt} format string and the location of the log call: the default argument is evaluated where
/// the conversion happens, which is the call of LogInfo() or LogDebug().
struct LogFormat {
  template <std::convertible_to<std::string_view> Text>
  LogFormat(const Text& text, std::source_location location = std::source_location::current())
      : format(text), where(location) {}

  std::string_view format;
  std::source_location where;
};

void WriteInfo(const std::source_location& where, const std::string& message);
void WriteDebug(const std::source_location& where, const std::string& message);

/// Writes one line to syslog: the source path, ":", the line number, a blank and the formatted
/// message. Throws fmt::format_error if the format does not match the arguments. Braces are format
/// syntax even in a message without arguments.
template <typename... Args>
void LogInfo(LogFormat format, const Args&... args) {
  WriteInfo(format.where, fmt::vformat(format.format, fmt::make_format_args(args...)));
}

template <typename... Args>
void LogDebug(LogFormat format, const Args&... args) {
  WriteDebug(format.where, fmt::vformat(format.format, fmt::make_format_args(args...)));
}

}  // namespace velmora::plugin::network
