// Text for people and for JSON. What is decoded as UTF-8 goes by the process's LC_CTYPE.
#pragma once

#include <string>
#include <string_view>

namespace velmora::tool {

/// The text on one line that a terminal shows as it is: control and format characters, and
/// bytes that are not UTF-8, become escapes such as "\n" and "\xff".
std::string OneLine(std::string_view text);

/// The columns that a text made by OneLine() takes on a terminal.
int Width(std::string_view text);

/// The end of a path, where paths differ, when the whole is wider than `width`.
std::string KeepEnd(std::string_view path, int width);

/// The text with U+FFFD in place of each byte that is not UTF-8, which JSON cannot hold.
std::string JsonText(std::string_view text);

}  // namespace velmora::tool
