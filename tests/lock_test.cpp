#include <fcntl.h>
#include <reelhouse/lock.h>
#include <sys/file.h>

#include <filesystem>

#include "support/processes.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

class LockTest : public MachineTest {};

TEST_F(LockTest, CreatesWhatIsMissingAndIsHeldOnce) {
  EXPECT_TRUE(Lock("./file", true).IsLockSucess());
  EXPECT_EQ(0644U, ModeOf("file"));
  umask(077);
  Lock held("./made/by/lock", false);
  EXPECT_EQ(0755U, ModeOf("made"));
  EXPECT_EQ(0755U, ModeOf("made/by"));
  EXPECT_EQ(0600U, ModeOf("made/by/lock"));
  EXPECT_TRUE(held.IsLockSucess());
  EXPECT_FALSE(Lock("made/by/lock", false).IsLockSucess());
  // Or a transcoder that the host starts meanwhile keeps the lock.
  EXPECT_NE(0, std::system("ls -l /proc/self/fd | grep made/by/lock"));
  held.UnlockFile();
  held.UnlockFile();
  EXPECT_FALSE(held.IsLockSucess());
  EXPECT_TRUE(Lock("made/by/lock", false).IsLockSucess());
  EXPECT_EQ(Lines(), LogLines());
}

TEST_F(LockTest, WithoutALockSaysWhyForFolders) {
  fs::create_directory("folder");
  SetText("file", "");
  ASSERT_EQ(0, mkfifo("fifo", 0666));
  const std::pair<std::string, Lines> cases[] = {
      {"name", {"3 lock.cpp: Find dir path failed name"}},
      {"./file/new/lock", {"3 lock.cpp: Fail to create dir [./file/new]"}},
      {"./folder", {}},
      {"./fifo", {}},
      {"/dev/null", {}},
  };
  for (const auto& [path, lines] : cases) {
    EXPECT_FALSE(Lock(path, true).IsLockSucess()) << path;
    EXPECT_EQ(lines, LogLines()) << path;
  }
  EXPECT_FALSE(fs::exists("name"));
}

int leased = -1;

TEST_F(LockTest, WaitsForALeaseToBeGivenUp) {
  leased = open("file", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  signal(SIGIO, [](int) { fcntl(leased, F_SETLEASE, F_UNLCK); });
  if (fcntl(leased, F_SETLEASE, F_WRLCK) != 0) {
    GTEST_SKIP() << "no leases in this file system";
  }
  InChild([] { EXPECT_TRUE(Lock("./file", true).IsLockSucess()); });
  EXPECT_EQ(F_UNLCK, fcntl(leased, F_GETLEASE));
  close(leased);
}

}  // namespace
