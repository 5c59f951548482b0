#include "network/log.h"

#include <syslog.h>

#include "support/own_namespace.h"

namespace velmora::plugin::network {
namespace {

std::string Path(int line) { return "tests/log_test.cpp:" + std::to_string(line); }

TEST(LogTest, OneLineWithoutFormatInIt) {
  NEED_OWN_NAMESPACE();
  const int line = __LINE__;
  LogInfo("{} of {:03}", "100 %s", 7);
  LogDebug("{{}}");
  const std::vector<test::SyslogLine> lines = test::TakeSyslog();
  ASSERT_EQ(2U, lines.size());
  EXPECT_EQ(Path(line + 1) + " 100 %s of 007", lines[0].text);
  EXPECT_EQ(LOG_LOCAL1 | LOG_INFO, lines[0].priority);
  EXPECT_EQ(Path(line + 2) + " {}", lines[1].text);
  EXPECT_EQ(LOG_LOCAL1 | LOG_DEBUG, lines[1].priority);
  EXPECT_THROW(LogInfo("{}"), fmt::format_error);
}

}  // namespace
}  // namespace velmora::plugin::network
