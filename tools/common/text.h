// Text for people and for JSON. It is decoded by the process's LC_CTYPE, which must be UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace velmora::tool {

/// The text on one line that is safe to print: control and format characters, and bytes that are
/// not UTF-8, are escaped, as in "\n" and "\xff".
std::string OneLine(std::string_view text);

/// The columns that a text made by OneLine() takes on a terminal.
int Width(std::string_view text);

/// The path, cut to `width` columns at its front: paths differ at their ends.
std::string KeepEnd(std::string_view path, int width);

/// The text with U+FFFD in place of each byte that is not UTF-8, which JSON cannot hold.
std::string JsonText(std::string_view text);

}  // namespace velmora::tool
