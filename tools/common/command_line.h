// What the command lines of both programs have in common.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tool {

/// A program with --help and --version that wants a command.
void SetUp(CLI::App* program);

/// Parses the arguments (without the program's name). Returns the exit status if that was all: for
/// --help, --version and wrong usage. Each is printed.
std::optional<int> Parse(CLI::App* program, std::vector<std::string> arguments);

}  // namespace velmora::tool
