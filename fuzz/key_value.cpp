// The reader of "key=value" files. An input is the buffer's size (one byte), the key up to the end
// of its line, and the file.
#include <karvcore/karvcore.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "support.h"

using namespace velmora::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  static const MemoryFile file;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string key(input.substr(0, input.find('\n')));
  const std::size_t text = 1 + std::min(key.size() + 1, input.size());
  file.Set(data + text, size - text);

  const auto read = [&](std::vector<char>& buffer) {
    return KLIBCFileGetKeyValue(file.path().c_str(), key.c_str(), buffer.data(),
                                static_cast<int>(buffer.size()), 0);
  };
  std::vector<char> whole(size + 1, '~');
  std::vector<char> cut(data[0], '~');  // its end is guarded: not one byte more may be written
  const int length = read(whole);
  const int kept = read(cut);
  if (length <= 0 || cut.empty()) {
    Require(kept <= 0 && (length > 0 || whole == std::vector<char>(whole.size(), '~')),
            "without a value, the buffer stays as it is");
    return 0;
  }
  Require(kept == std::min(length, static_cast<int>(cut.size())), "the size tells what was kept");
  Require(cut[static_cast<std::size_t>(kept) - 1] == '\0', "the value is terminated");
  Require(std::memcmp(cut.data(), whole.data(), static_cast<std::size_t>(kept) - 1) == 0,
          "a value that does not fit is cut off");
  return 0;
}
