// The program's MODEL.json: a description, or an error that can be shown to the user.

#include <json/json.h>

#include "common/text.h"
#include "model.h"
#include "support.h"

using namespace velmora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  file.Set(data, size);
  try {
    const tool::Model model = tool::ReadDescription(file.path());
    fuzz::Require(!model.config.output_names.empty() && model.size.area() > 0, "is complete");
  } catch (const std::runtime_error& error) {
    fuzz::Require(!tool::OneLine(error.what()).empty(), "says what is wrong");
  } catch (const Json::RuntimeError& error) {  // nested too deeply
    fuzz::Require(!tool::OneLine(error.what()).empty(), "says what is wrong");
  }
  return 0;
}
