// velmora-model: runs image-recognition models from the command line.

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <clocale>
#include <cstdlib>
#include <opencv2/core/utils/logger.hpp>

#include "commands.h"
#include "common/command_line.h"
#include "common/console.h"
#include "errors.h"
#include "model.h"
#include "protobuf_log.h"

namespace {

using namespace velmora::tool;  // NOLINT(google-build-using-namespace)

/// The program reports an error in one line; the engines would add theirs.
void SilenceEngines() {
  setenv("HWLOC_HIDE_ERRORS", "2", 0);  // of OpenVINO's threads, where there is no /sys
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  velmora::compat::SilenceProtobuf();
}

int RunProgram(std::vector<std::string> arguments) {
  CLI::App program("Runs image-recognition models.", VELMORA_PROGRAM);
  SetUp(&program);
  program.footer(fmt::format("\"velmora-model COMMAND --help\" tells more.\n\n{}\n{}", kExamples,
                             kStatusHelp));
  int status = kDone;
  for (auto* const add : {AddRun, AddBench, AddCompare, AddOutputs, AddCheck}) {
    add(&program, &status);
  }
  // The parser would take "[a]" for a list, even after "--".
  for (std::string& argument : arguments) {
    if (argument.starts_with('[')) {
      argument.insert(0, "./");
    }
  }
  return Parse(&program, std::move(arguments)).value_or(status);
}

}  // namespace

int main(int argc, char** argv) {
  // For decoding text; numbers stay as in C.
  static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));
  SilenceEngines();
  Console console;
  try {
    const int status = RunProgram({argv + 1, argv + argc});
    FlushOutput();
    return status;
  } catch (const ModelError& error) {
    console.Say(error.what());
    return kModelNotLoaded;
  } catch (...) {
    console.Say(CurrentError());
    return kNotAllDone;
  }
}
