#include "support/subprocess.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

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

Finished RunProcess(std::vector<std::string> command, ErrorTo error_to,
                    const std::string& output_path) {
  std::vector<char*> arguments;
  for (std::string& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  // A file, and not a second pipe: a program that fills one pipe while the other is read hangs.
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(
      output_path.empty() ? std::tmpfile() : std::fopen(output_path.c_str(), "w"), &std::fclose);
  int ends[2];  // for reading and for writing, as of pipe()
  winsize size{24, 80, 0, 0};
  const int opened = error_to == ErrorTo::kPipe
                         ? pipe2(ends, O_CLOEXEC)
                         : openpty(&ends[0], &ends[1], nullptr, nullptr, &size);
  if (output == nullptr || opened != 0) {
    std::perror("RunProcess");
    std::abort();
  }

  const pid_t child = fork();
  if (child == 0) {
    setenv("TERM", "xterm", 1);
    dup2(fileno(output.get()), STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(ends[1]);
  Finished finished;
  finished.error = ReadAll(ends[0]);
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) == child && WIFEXITED(status)) {
    finished.status = WEXITSTATUS(status);
  }
  if (output_path.empty()) {
    lseek(fileno(output.get()), 0, SEEK_SET);
    finished.output = ReadAll(fileno(output.get()));
  }
  return finished;
}
