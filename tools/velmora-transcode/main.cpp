// velmora-transcode: shows and changes the record of what is transcoding. It links no engine, so
// that starting it for every transcode costs little.

#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <clocale>
#include <exception>
#include <limits>
#include <optional>

#include "commands.h"
#include "common/command_line.h"
#include "common/console.h"

namespace {

using namespace velmora::tool;  // NOLINT(google-build-using-namespace)

constexpr char kHelp[] =
    R"(Transcoders and networks share the record. Each command locks it for a moment,
and waits while another process has it locked.

Exit status:
  0  success
  1  something failed, as standard error says
  2  wrong usage)";

constexpr char kRunHelp[] =
    R"(COMMAND and its arguments follow the options, or a "--". Checks that the
transcode may start, registers this process, and becomes COMMAND, which keeps
the process id and with it the entry until it ends.

Exit status: that of COMMAND; 127 if there is no such command, 126 if it cannot
be run, 125 if the transcode may not start or could not be registered.

Example:
  velmora-transcode run --hardware -- ffmpeg -i in.mkv out.mp4
)";

using Command = int (*)(const Options&);

/// Adds the commands; parsing sets `*chosen` to the one that the user chose. Returns "run".
CLI::App* AddCommands(CLI::App* program, Options* options, Command* chosen) {
  const auto add = [=](const char* name, const char* help, Command function) {
    CLI::App* const command = program->add_subcommand(name, help);
    command->callback([=] { *chosen = function; });
    return command;
  };
  const auto add_json = [=](CLI::App* command) {
    command->add_flag("--json", options->json, "Print a JSON document instead of text");
  };
  const auto add_hardware = [=](CLI::App* command) {
    command->add_flag("--hardware", options->hardware, "With hardware; without this, by software");
  };
  const auto add_offline = [=](CLI::App* command) {
    command->add_flag("--offline", options->offline, "The job is an offline conversion");
  };
  const auto add_pid = [=](CLI::App* command) {
    command->add_option("PID", options->pid, "Process id")
        ->required()
        ->type_name("")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
  };
  add_json(add("list", "Show what is transcoding", List));
  CLI::App* const admit = add("admit", "Tell whether a transcode may start now", Admit);
  add_hardware(admit);
  admit->footer("Prints yes or no. Exit status: 0 for yes, 1 for no.\n");
  CLI::App* const add_command = add("add", "Register a process as transcoding", Add);
  add_pid(add_command);
  add_hardware(add_command);
  add_offline(add_command);
  add_pid(add("remove", "Remove a process's entries", Remove));
  CLI::App* const run = add("run", "Run a COMMAND, registered as transcoding", RunCommand);
  add_hardware(run);
  add_offline(run);
  run->prefix_command();  // the parser leaves COMMAND's arguments alone
  run->footer(kRunHelp);
  add_json(add("status", "Show what this machine is and can do", Status));
  return run;
}

int RunProgram(std::vector<std::string> arguments) {
  CLI::App program("Shows and changes the record of what is transcoding.", VELMORA_PROGRAM);
  SetUp(&program);
  program.footer(kHelp);
  Options options;
  Command chosen = nullptr;
  const CLI::App* const run = AddCommands(&program, &options, &chosen);

  // The parser would change arguments after "--".
  const auto dashes = std::find(arguments.begin(), arguments.end(), "--");
  const std::vector<std::string> behind(dashes, arguments.end());
  arguments.erase(dashes, arguments.end());
  if (const std::optional<int> status = Parse(&program, std::move(arguments))) {
    return *status;
  }
  options.command = run->remaining();
  options.command.insert(options.command.end(),
                         behind.begin() + (options.command.empty() && !behind.empty() ? 1 : 0),
                         behind.end());
  if (!run->parsed() && !options.command.empty()) {
    Console().Say("only run takes a command; see " VELMORA_PROGRAM " --help");
    return kWrongUsage;
  }
  if (run->parsed() && options.command.empty()) {
    Console().Say("COMMAND is required; see " VELMORA_PROGRAM " run --help");
    return kWrongUsage;
  }
  return chosen(options);
}

}  // namespace

int main(int argc, char** argv) {
  // For decoding text; numbers stay as in C.
  static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));
  try {
    const int status = RunProgram({argv + 1, argv + argc});
    FlushOutput();
    return status;
  } catch (const std::exception& error) {
    Console().Say(error.what());
    return kNotAllDone;
  }
}
