#include "support/subprocess.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace {

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  // The end of a terminal is an error, that of a file or a pipe is not.
  for (ssize_t count; (count = read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

Finished RunProcess(std::vector<std::string> command, ErrorTo error_to) {
  std::vector<char*> arguments;
  for (std::string& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  Finished finished;
  int error[2];  // for reading and for writing, as of pipe()
  winsize size{24, 80, 0, 0};
  finished.on_terminal =
      error_to == ErrorTo::kTerminal && openpty(&error[0], &error[1], nullptr, nullptr, &size) == 0;
  // Memory, and not a second pipe: a program that fills one pipe while the other is read hangs.
  const int output = memfd_create("output", MFD_CLOEXEC);
  if (output < 0 || (!finished.on_terminal && pipe2(error, O_CLOEXEC) != 0)) {
    throw std::system_error(errno, std::generic_category(), "RunProcess");
  }

  const pid_t child = fork();
  if (child == 0) {
    setenv("TERM", "xterm", 1);
    setenv("LD_PRELOAD", VELMORA_TEST_MACHINE_LIBRARY, 1);
    const char* const options = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           (std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0").c_str(),
           1);
    dup2(output, STDOUT_FILENO);
    dup2(error[1], STDERR_FILENO);
    close(error[0]);
    close(error[1]);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(error[1]);
  finished.error = ReadAll(error[0]);
  close(error[0]);
  int status = 0;
  if (waitpid(child, &status, 0) == child && WIFEXITED(status)) {
    finished.status = WEXITSTATUS(status);
  }
  lseek(output, 0, SEEK_SET);
  finished.output = ReadAll(output);
  close(output);
  return finished;
}
