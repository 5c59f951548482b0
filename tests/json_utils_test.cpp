#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/json_utils.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>

#include "support/processes.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

constexpr auto readers = {ReadJsonFromFile, ReadJsonFromFileWithoutLock};
constexpr auto writers = {WriteJsonToFile, WriteJsonToFileWithoutLock};

class JsonUtilsTest : public MachineTest {};

TEST_F(JsonUtilsTest, EveryPathAndContentHasItsOutcome) {
  fs::create_directory("folder");
  ASSERT_EQ(0, mkfifo("fifo", 0666));
  const std::string deep(99, '[');  // one level less than may be
  const std::string end(99, ']');
  enum Outcome { kDone, kFails, kFailsAndLogs };
  const struct {
    std::string path;
    std::string text;  // written there first, unless it is empty
    Outcome read;
    Outcome write;
  } cases[] = {
      {"1", "{\"a\": [1, 2.5, \"x\"]} // why\n", kDone, kDone},
      {"2", deep + "[\"\\\"[{" + deep + "\"] // [[{\n/*" + deep + "*/" + end, kDone, kDone},
      {"3", "[\"\\\"\"," + deep + "[]" + end + "]", kFailsAndLogs, kDone},
      {"new", "", kFails, kDone},
      {"missing/new", "", kFails, kFailsAndLogs},
      {"folder", "", kFailsAndLogs, kFailsAndLogs},
      {"fifo", "", kFails, kFailsAndLogs},
      {"/dev/null", "", kFails, kFailsAndLogs},
      {"", "", kFailsAndLogs, kFailsAndLogs},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.path);
    if (!row.text.empty()) {
      SetText(row.path, row.text);
    }
    const auto lines = [&](Outcome outcome, const std::string& message) {
      const std::string text = row.path.empty() ? "Bad parameter" : message + row.path + "]";
      return outcome == kFailsAndLogs ? Lines{"3 json_utils.cpp: " + text} : Lines();
    };
    Json::Value root;
    for (const auto read : readers) {
      EXPECT_EQ(row.read == kDone, read(row.path, root));
      EXPECT_EQ(lines(row.read, "Failed to parse json file ["), LogLines());
    }
    for (const auto write : writers) {
      EXPECT_EQ(row.write == kDone, write(row.path, "x"));
      EXPECT_EQ(lines(row.write, "failed to write json file ["), LogLines());
      EXPECT_TRUE(row.write != kDone || (ReadJsonFromFile(row.path, root) && root == "x"));
    }
  }
  EXPECT_FALSE(fs::exists("missing"));
}

TEST_F(JsonUtilsTest, AFullDiskIsReportedUnlessTheTextIsShort) {
  for (const auto write : writers) {
    InChild([&] {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit half = {512, 512};
      EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &half));
      // With quotes and line break 1,023 bytes, which fail only as the file is closed.
      EXPECT_TRUE(write("short", std::string(1020, 'x')));
      EXPECT_EQ(Lines(), LogLines());
      EXPECT_FALSE(write("long", std::string(1021, 'x')));
      EXPECT_EQ(Lines{"3 json_utils.cpp: failed to write json file [long]"}, LogLines());
    });
    EXPECT_EQ(512U, fs::file_size("long"));
  }
}

TEST_F(JsonUtilsTest, WithoutMemoryFails) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer ends the process instead";
#endif
  InChild([] {
    const std::string path(100'000'000, 'x');
    const rlimit no_more = {0, 0};
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &no_more));
    Json::Value root;
    EXPECT_FALSE(ReadJsonFromFile(path, root));
    EXPECT_FALSE(WriteJsonToFile(path, root));
  });
}

TEST_F(JsonUtilsTest, CreatesAsItsModesSay) {
  umask(0);
  EXPECT_TRUE(WriteJsonToFile("file", {}));
  EXPECT_EQ(0664U, ModeOf("file"));
  EXPECT_TRUE(WriteJsonToFileWithoutLock("unlocked", {}));
  EXPECT_EQ(0666U, ModeOf("unlocked"));
}

TEST_F(JsonUtilsTest, AWriterWaitsForReadersAndAReaderForWriters) {
  Json::Value root;
  const struct {
    int held;
    std::string asked;
    std::function<bool()> waits;
    std::string meanwhile;  // in the file
  } cases[] = {
      {LOCK_SH, "WRITE", [] { return WriteJsonToFile("file", "new"); }, "old"},
      {LOCK_EX, "READ", [&] { return ReadJsonFromFile("file", root) && root == "new"; }, "new"},
  };
  SetText("file", "\"old\"");
  for (const auto& row : cases) {
    const int holder = open("file", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(holder, row.held));
    EXPECT_TRUE(row.held == LOCK_EX || ReadJsonFromFile("file", root));  // readers share
    const pid_t waiter = StartChild([&] { EXPECT_TRUE(row.waits()); });
    const std::string line = "-> FLOCK  ADVISORY  " + row.asked + " " + std::to_string(waiter);
    while (Text("/proc/locks").find(line) == std::string::npos) {
      ASSERT_EQ(0, waitpid(waiter, nullptr, WNOHANG)) << "did not wait";
      usleep(1000);
    }
    EXPECT_TRUE(ReadJsonFromFileWithoutLock("file", root) && root == row.meanwhile);
    flock(holder, LOCK_UN);  // the waiter has the descriptor too
    EXPECT_EQ(0, EndOf(waiter));
  }
}

}  // namespace
