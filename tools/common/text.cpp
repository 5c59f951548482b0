#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>

namespace velmora::tool {

namespace {

struct Character {
  std::string_view bytes;
  bool valid = false;  // as UTF-8; other bytes are taken one by one
  int width = -1;      // columns; -1 for a character that is not printed
};

/// Like wcwidth(), but -1 also for format characters, which take no columns either: they are
/// invisible or change the direction of text. Combining accents and vowels are shown, at no
/// columns.
int Columns(wchar_t code) {
  static const std::wctype_t kCombining = std::wctype("combining");
  const std::wint_t character = std::char_traits<wchar_t>::to_int_type(code);
  const int width = wcwidth(code);
  return width != 0 || std::iswalpha(character) != 0 || std::iswctype(character, kCombining) != 0
             ? width
             : -1;
}

/// Takes the first character off the text.
Character TakeCharacter(std::string_view* text) {
  std::mbstate_t state{};
  wchar_t code = 0;
  std::size_t length = std::mbrtowc(&code, text->data(), text->size(), &state);
  const bool valid = length <= text->size();  // errors are the greatest values of the type
  length = valid ? std::max<std::size_t>(length, 1) : 1;
  const Character character{text->substr(0, length), valid, Columns(code)};
  text->remove_prefix(length);
  return character;
}

}  // namespace

std::string OneLine(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const Character character = TakeCharacter(&text);
    if (character.valid && character.width >= 0) {
      line += character.bytes;
    } else if (character.bytes == "\n") {
      line += "\\n";
    } else {
      for (const char byte : character.bytes) {
        line += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
      }
    }
  }
  return line;
}

int Width(std::string_view text) {
  int width = 0;
  while (!text.empty()) {
    width += std::max(TakeCharacter(&text).width, 0);
  }
  return width;
}

std::string KeepEnd(std::string_view path, int width) {
  if (Width(path) <= width) {
    return std::string(path);
  }
  while (Width(path) > width - 1) {
    TakeCharacter(&path);
  }
  return "…" + std::string(path);
}

std::string JsonText(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Character character = TakeCharacter(&text);
    result += character.valid ? character.bytes : "\uFFFD";
  }
  return result;
}

}  // namespace velmora::tool
