// The old processes.h, for tests in a mount namespace of their own; goes with own_namespace.h.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/own_namespace.h"

namespace velmora::test {

using Lines = std::vector<std::string>;

/// Starts in an empty folder. A hang is a failure.
class OwnFolderTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    std::filesystem::remove_all("/tmp/test");
    std::filesystem::create_directory("/tmp/test");
    std::filesystem::current_path("/tmp/test");
    umask(022);
    syslog(LOG_ERR, "opens its descriptor, for children that can open no more");
    TakeSyslog();
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
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Runs `body` in a child to its end.
template <typename Body>
void InChild(Body body) {
  EXPECT_EQ(0, EndOf(StartChild(body)));
}

/// For children: from now on they are another user. Where there is none, they end.
inline void SomeoneElse() {
  if (setuid(65534) != 0) {
    std::puts("skipped: only one user here");
    std::fflush(nullptr);
    _exit(0);
  }
}

/// Every line since the last call as "priority file.cpp:# text"; 11 is LOG_ERR, 14 LOG_INFO, both
/// with the facility that syslog adds where none is given.
inline Lines LogLines() {
  Lines lines;
  for (const SyslogLine& line : TakeSyslog()) {
    std::string text = line.text;
    const std::size_t begin = text.find(".cpp:") + 5;
    const std::size_t end = text.find(' ', begin);
    EXPECT_GT(std::atoi(text.c_str() + begin), 0) << text;
    lines.push_back(std::to_string(line.priority) + " " + text.replace(begin, end - begin, "#"));
  }
  return lines;
}

inline std::string Text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();  // a file that fails half-way is as long as it was read
  return text.str();
}

inline void SetText(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

inline unsigned ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
  return status.st_mode & 07777U;
}

}  // namespace velmora::test
