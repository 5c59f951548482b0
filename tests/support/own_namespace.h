// Test executables that link own_namespace.cpp run in a mount namespace of their own, one for each
// process (and ctest starts a process for each test): /tmp is empty, and /dev/log belongs to the
// test, so that the real absolute paths can be used and nothing of the machine is touched.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmora::test {

/// Why this process has no namespace of its own; empty when it has.
const std::string& WhyNoNamespace();

/// Skips the calling test where namespaces are not allowed.
#define NEED_OWN_NAMESPACE() \
  if (!velmora::test::WhyNoNamespace().empty()) GTEST_SKIP() << velmora::test::WhyNoNamespace()

/// Puts a file with this text at an absolute path, whatever the machine has there, for this process
/// and the children that it starts later. May be repeated with another text. Missing folders are
/// made, except in file systems that hold none, such as /proc. False with errno when that fails.
bool PlaceFile(const std::string& path, const std::string& text);

struct SyslogLine {
  int priority;      // facility and level, as sent
  std::string text;  // without time stamp and program name
};

/// The lines that reached /dev/log since the last call, of this process and its children.
std::vector<SyslogLine> TakeSyslog();

}  // namespace velmora::test
