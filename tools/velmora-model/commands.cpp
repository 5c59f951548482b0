#include "commands.h"

#include <CLI/CLI.hpp>
#include <map>
#include <utility>

namespace velmora::tool {

CLI::App* AddCommand(CLI::App* program, const char* name, const char* about,
                     const std::string& help, int* status, std::function<int()> run) {
  CLI::App* const command = program->add_subcommand(name, about);
  if (*about == '\0') {
    command->group("");
  }
  command->footer(help);
  command->callback([status, run = std::move(run)] { *status = run(); });
  return command;
}

CLI::Option* AddText(CLI::App* command, const char* name, std::string* value, const char* type,
                     const char* help) {
  return command->add_option(name, *value, help)->type_name(type);
}

CLI::Option* AddNumber(CLI::App* command, const char* name, int* value, const char* type, int min,
                       int max, const char* help) {
  // Without the range's usual description, --help says "N" and no more.
  return command->add_option(name, *value, help)
      ->type_name(type)
      ->check(CLI::Range(min, max).description(""));
}

void AddModel(CLI::App* command, std::string* path) {
  AddText(command, "MODEL.json", path, "", "Description of the model")->required();
}

CLI::Option* AddImages(CLI::App* command, std::vector<std::string>* paths, bool required) {
  return command->add_option("IMAGE|FOLDER", *paths, "Images to run")
      ->type_name("")
      ->required(required);
}

void AddBackend(CLI::App* command, std::optional<Backend>* backend) {
  const auto set = [backend](const std::string& name) { *backend = BackendsByName().at(name); };
  command
      ->add_option_function<std::string>("--backend", set,
                                         "Engine: dnn (OpenCV), ie (OpenVINO) or tflite\n"
                                         "(TensorFlow Lite) [the one that the library chooses]")
      ->type_name("NAME")
      ->check(CLI::IsMember(BackendsByName()).description(""));
}

void AddJson(CLI::App* command, bool* json) {
  command->add_flag("--json", *json, "Print one JSON document instead of a table");
}

void AddCommon(CLI::App* command, CommonOptions* options) {
  AddModel(command, &options->model);
  AddImages(command, &options->images);
  AddBackend(command, &options->backend);
  AddJson(command, &options->json);
}

}  // namespace velmora::tool
