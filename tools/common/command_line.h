// What the command lines of both programs have in common.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tool {

/// Adds --help and --version, and requires a command.
void SetUp(CLI::App* program);

/// Parses the arguments, which do not include the program's name. Returns the exit status if there
/// is nothing left to do: after --help, --version and wrong usage, which it prints.
std::optional<int> Parse(CLI::App* program, std::vector<std::string> arguments);

}  // namespace velmora::tool
