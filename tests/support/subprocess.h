// Runs a program as a user would, and sees what a user would see of it.
#pragma once

#include <string>
#include <vector>

struct Finished {
  int status = -1;  // exit status; -1 when a signal ended the program
  std::string output;
  std::string error;
  bool on_terminal = false;  // was its standard error
};

enum class ErrorTo { kPipe, kTerminal };

/// Runs `command` to its end, on the test's machine (machine.h). Its standard error is a pipe, or a
/// terminal of 80 columns where the system gives one.
Finished RunProcess(std::vector<std::string> command, ErrorTo error_to = ErrorTo::kPipe);
