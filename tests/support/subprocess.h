// Runs a program as a user would, and sees what a user would see of it.
#pragma once

#include <string>
#include <vector>

struct Finished {
  int status = -1;  // exit status; -1 when a signal ended the program
  std::string output;
  std::string error;
};

enum class ErrorTo { kPipe, kTerminal };

/// Runs `command` to its end. Its standard error is a pipe or a terminal of 80 columns; its
/// standard output goes to the file `output_path`, or to the result when that is empty.
Finished RunProcess(std::vector<std::string> command, ErrorTo error_to = ErrorTo::kPipe,
                    const std::string& output_path = "");
