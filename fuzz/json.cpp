// A JSON file: what was read can be written, and then reads back as it was written.
#include <reelhouse/json_utils.h>

#include <algorithm>

#include "support.h"

using namespace LibReelhouse;
using namespace velmora::fuzz;

namespace {

/// JsonCpp is not instrumented: what it made of the text is what one text differs from another in.
void NoteValue(const Json::Value& value, unsigned depth) {
  const unsigned size = value.isString() ? static_cast<unsigned>(value.asString().size())
                                         : static_cast<unsigned>(value.size());
  NoteOutcome(value.type() + 8 * std::min(depth, 15U) + 128 * std::min(size, 15U));
  for (const Json::Value& element : value) {
    NoteValue(element, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  const std::string& path = file.path();
  file.Set(data, size);
  Json::Value root;
  Json::Value again;
  const bool is_document = ReadJsonFromFile(path, root);
  Require(TakeLogLines() == (is_document ? 0 : 1), "a line for each failure");
  Require(ReadJsonFromFileWithoutLock(path, again) == is_document, "the lock changes nothing");
  if (is_document) {
    NoteValue(root, 0);
    Require(again == root, "the lock changes nothing");
    Require(WriteJsonToFile(path, root), "what was read can be written");
    const std::string text = Text(path);
    Require(ReadJsonFromFile(path, again), "what was written can be read");
    // The writer puts a substitute for what is not UTF-8, and members are in the order of their
    // keys.
    const bool is_ascii =
        std::all_of(data, data + size, [](std::uint8_t byte) { return byte < 128; });
    Require(WriteJsonToFileWithoutLock(path, again) && (!is_ascii || Text(path) == text),
            "and reads back");
  }
  TakeLogLines();
  return 0;
}
