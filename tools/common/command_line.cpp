#include "common/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "common/console.h"

namespace velmora::tool {

void SetUp(CLI::App* program) {
  program->get_formatter()->column_width(24);
  program->require_subcommand(1);
  program->set_help_flag("-h,--help", "Print this help and exit");
  program->set_version_flag("--version", VELMORA_PROGRAM " " VELMORA_VERSION,
                            "Print the version and exit");
}

std::optional<int> Parse(CLI::App* program, std::vector<std::string> arguments) {
  std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
  try {
    program->parse(std::move(arguments));
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    Print(program->help());
    return kDone;
  } catch (const CLI::CallForVersion& version) {
    Print(fmt::format("{}\n", version.what()));
    return kDone;
  } catch (const CLI::ParseError& error) {
    Console().Say(fmt::format("{}; see " VELMORA_PROGRAM " --help", error.what()));
    return kWrongUsage;
  }
}

}  // namespace velmora::tool
