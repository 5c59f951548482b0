// The appliance's system libraries as they are built here.
#include <karvcore/karvcore.h>
#include <karvsdk/karvsdk.h>

#include <cerrno>
#include <climits>

#include "support/processes.h"

namespace fs = std::filesystem;
using namespace velmora::test;

namespace {

class KarvTest : public MachineTest {};

TEST_F(KarvTest, FindsTheValueOfAKey) {
  const struct {
    std::string text;
    int size;
    int result;
    std::string value;  // the buffer's former content when nothing is found
  } cases[] = {
      {"other=1\r\n\tkey \t= two words \r\nkey=later\r\n", 256, 10, "two words"},
      {"# key=no\n#key=no\nkey\n=no\nKey=no\nkey2=no\nxkey=no\nkey=yes", 256, 4, "yes"},
      {"key =   # a remark\n", 256, 1, ""},
      {"key=#a=b#c # a remark\n", 256, 7, "#a=b#c"},
      {"key = \" # 'kept' \" # a remark\n", 256, 11, " # 'kept' "},
      {"key=01234567\n", 9, 9, "01234567"},
      {"key=01234567\n", 8, 8, "0123456"},
      {std::string(1 << 20, 'x') + "\nkey=" + std::string(1 << 20, 'y'), 256, 256,
       std::string(255, 'y')},
      {"", 256, 0, "before"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.text.substr(0, 80));
    SetText("file", row.text);
    char buffer[256] = "before";
    EXPECT_EQ(row.result, KLIBCFileGetKeyValue("file", "key", buffer, row.size, 0));
    EXPECT_EQ(row.value, buffer);
  }
  char buffer[256];
  ASSERT_EQ(0, mkfifo("fifo", 0666));
  EXPECT_EQ(0, KLIBCFileGetKeyValue("fifo", "key", buffer, 256, 0));
  EXPECT_EQ(-1, KLIBCFileGetKeyValue("missing", "key", buffer, 256, 0));
}

TEST_F(KarvTest, KnowsWhichProcessesExist) {
  EXPECT_NE(0, KLIBCProcAlive(getpid()));
  EXPECT_NE(0, KLIBCProcAlive(1));  // also another user's
  for (const int id : {0, -1, -getpgrp(), INT_MIN, INT_MAX}) {
    EXPECT_EQ(0, KLIBCProcAlive(id)) << id;
  }
}

TEST_F(KarvTest, RunsAProgramWithoutAShellAndUndisturbedBySignals) {
  SetText("program", "#!/bin/sh\nfor i; do echo \"[$i]\"; done > out\nexit 7\n");
  chmod("program", 0755);
  EXPECT_EQ(7, KLIBCExec("./program", "a b; exit 9", "$HOME", "", nullptr));
  EXPECT_EQ("[a b; exit 9]\n[$HOME]\n[]\n", Text("out"));
  EXPECT_EQ(7, KLIBCExec("./program", "1", nullptr, "not passed", "4"));
  EXPECT_EQ("[1]\n", Text("out"));
  EXPECT_EQ(-1, KLIBCExec("sh", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(ENOENT, errno);
  InChild([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGALRM, &action, nullptr);
    signal(SIGTERM, SIG_IGN);
    ualarm(2000, 2000);
    EXPECT_EQ(128 + SIGTERM,
              KLIBCExec("/bin/sh", "-c", "sleep 0.1; kill -TERM $$; exit 3", nullptr, nullptr));
  });
}

TEST_F(KarvTest, MakesADirectoryWithItsParents) {
  SetText("file", "");
  fs::create_directory("there");
  fs::permissions("there", fs::perms(0711));
  umask(077);
  const struct {
    std::string path;
    unsigned mode;
    int error;         // 0 for success
    std::string made;  // with this mode
  } cases[] = {
      {fs::current_path() / "a/b/c", 0755, 0, "a"},
      {"d//e/./f/", 0500, 0, "d/e"},
      {"there", 0755, 0, ""},
      {"file", 0755, ENOTDIR, ""},
      {"file/x", 0755, ENOTDIR, ""},
      {"", 0755, ENOENT, ""},
  };
  for (const auto& [path, mode, error, made] : cases) {
    SCOPED_TRACE(path);
    errno = 0;
    EXPECT_EQ(error == 0 ? 0 : -1, KARVFSMkdirP(path.c_str(), 0, 1, 1024, 100, mode));
    EXPECT_EQ(error, errno);
    EXPECT_TRUE(made.empty() || ModeOf(made) == mode);
  }
  EXPECT_EQ(0711U, ModeOf("there"));
}

}  // namespace
