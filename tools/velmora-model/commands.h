// The commands, and what the options and the help texts of several have in common.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engines.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace velmora::tool {

inline constexpr char kStatusHelp[] = R"(Exit status:
  0  success
  1  something failed, as standard error says; the rest was done
  2  wrong usage
  3  the model could not be loaded)";

inline constexpr char kExamples[] = R"(Examples:
  velmora-model run digits/model.json digits/images
  velmora-model run --json --top 3 digits/model.json a.png b.jpg > answers.json
  velmora-model run --annotate answers --batch 8 digits/model.json digits/images
)";

/// Each adds one command to the program, with its options and its help. The command that the user
/// chose runs while the arguments are parsed, and sets the exit status. It throws ModelError, and
/// std::system_error if standard output fails.
void AddRun(CLI::App* program, int* status);
void AddBench(CLI::App* program, int* status);
void AddCompare(CLI::App* program, int* status);
void AddOutputs(CLI::App* program, int* status);
void AddCheck(CLI::App* program, int* status);

/// Adds a command that sets the exit status to what `run` returns. An empty `about` hides it.
CLI::App* AddCommand(CLI::App* program, const char* name, const char* about,
                     const std::string& help, int* status, std::function<int()> run);

struct CommonOptions {
  std::string model;
  std::vector<std::string> images;
  std::optional<Backend> backend;  // none for the factory's choice
  bool json = false;
};

void AddModel(CLI::App* command, std::string* path);
CLI::Option* AddImages(CLI::App* command, std::vector<std::string>* paths, bool required = true);
void AddBackend(CLI::App* command, std::optional<Backend>* backend);
void AddJson(CLI::App* command, bool* json);
void AddCommon(CLI::App* command, CommonOptions* options);  // all of these

/// An option, or an argument when its name has no "--".
CLI::Option* AddText(CLI::App* command, const char* name, std::string* value, const char* type,
                     const char* help);
CLI::Option* AddNumber(CLI::App* command, const char* name, int* value, const char* type, int min,
                       int max, const char* help);

}  // namespace velmora::tool
