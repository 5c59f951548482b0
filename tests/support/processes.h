// What the tests of the video-service code share: a machine of the test's own, real child
// processes, files, and the lines of the log to compare.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/machine.h"

namespace velmora::test {

using Lines = std::vector<std::string>;

/// Starts on a new machine, in an empty folder. A hang is a failure.
class MachineTest : public testing::Test {
 protected:
  void SetUp() override {
    NewMachine();
    umask(022);
    alarm(300);
  }
};

/// Runs `body` in a child process, which ends with 1 when an expectation failed, else with 0.
template <typename Body>
pid_t StartChild(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // outlives no test that is stopped
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  return child;
}

/// Waits for the child; its exit status, or minus the signal that ended it.
inline int EndOf(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Runs `body` in a child to its end.
template <typename Body>
void InChild(Body body) {
  EXPECT_EQ(0, EndOf(StartChild(body)));
}

/// Every line since the last call as "priority file.cpp: text", without the number of the source
/// line; 3 is LOG_ERR, 6 LOG_INFO.
inline Lines LogLines() {
  Lines lines;
  for (const auto& [priority, text] : TakeLog()) {
    const std::size_t number = text.find(".cpp:") + 5;
    EXPECT_GT(std::atoi(text.c_str() + number), 0) << text;
    lines.push_back(std::to_string(priority) + " " + text.substr(0, number) +
                    text.substr(text.find(' ', number)));
  }
  return lines;
}

inline std::string Text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline void SetText(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

inline unsigned ModeOf(const std::string& path) {
  return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

}  // namespace velmora::test
