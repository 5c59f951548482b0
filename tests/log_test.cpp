#include "network/log.h"

#include <gtest/gtest.h>

#include "support/machine.h"

namespace velmora::plugin::network {
namespace {

TEST(LogTest, OneLineWithoutFormatInIt) {
  const int line = __LINE__;
  LogInfo("{} of {:03}", "100 %s", 7);
  LogDebug("{{}}%s");
  const std::vector<test::LogLine> lines = test::TakeLog();
  ASSERT_EQ(2U, lines.size());
  const std::string path = "tests/log_test.cpp:";
  EXPECT_EQ(path + std::to_string(line + 1) + " 100 %s of 007", lines[0].text);
  EXPECT_EQ(path + std::to_string(line + 2) + " {}%s", lines[1].text);
  EXPECT_THROW(LogInfo("{}"), fmt::format_error);
}

}  // namespace
}  // namespace velmora::plugin::network
