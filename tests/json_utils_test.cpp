// The locks, and the JSON files under them.
#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/lock.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <functional>
#include <map>

#include "support/processes.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

class JsonUtilsTest : public OwnFolderTest {};

/// What five operations on one path do: r, R read with and without the lock, w, W write, l locks.
/// Then "+" or "-", letters for what was logged, and "=" after a write that reads back equal.
std::string Outcome(const std::string& path, const Json::Value& document) {
  const std::map<std::string, char> known = {
      {"11 json_utils.cpp:# Failed to parse json file [" + path + "]", 'P'},
      {"11 json_utils.cpp:# failed to write json file [" + path + "]", 'F'},
      {"11 json_utils.cpp:# Bad parameter", 'B'},
      {"11 lock.cpp:# Find dir path failed " + path, 'N'},
      {"11 lock.cpp:# Fail to create dir [" + path.substr(0, path.rfind('/')) + "]", 'D'},
  };
  std::string outcome;
  const auto note = [&](char operation, bool result) {
    outcome += {' ', operation, result ? '+' : '-'};
    for (const std::string& line : LogLines()) {
      outcome += known.count(line) != 0 ? std::string(1, known.at(line)) : line;
    }
  };
  Json::Value root;
  note('r', ReadJsonFromFile(path, root));
  note('R', ReadJsonFromFileWithoutLock(path, root));
  for (const auto write : {WriteJsonToFile, WriteJsonToFileWithoutLock}) {
    note(write == WriteJsonToFile ? 'w' : 'W', write(path, document));
    outcome += !path.empty() && ReadJsonFromFile(path, root) && root == document ? "=" : "";
    TakeSyslog();
  }
  note('l', Lock(path, true).IsLockSucess());
  return outcome;
}

TEST_F(JsonUtilsTest, EveryPathAndContentHasItsOutcome) {
  for (const char* const mounted : {"full", "readonly"}) {
    fs::create_directory(mounted);
    ASSERT_EQ(0, mount("none", mounted, "tmpfs", 0, "size=16k"));
    SetText(std::string(mounted) + "/file", "[]");
  }
  fs::resize_file("full/file", 0);
  SetText("full/filler", std::string(20'000, ' '));
  ASSERT_EQ(0, mount(nullptr, "readonly", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  fs::create_directory("folder");
  ASSERT_EQ(0, mkfifo("fifo", 0666));
  SetText("private", "[]");
  chmod("private", 0600);
  const auto nothing = [] {};
  const auto no_descriptors = [] {
    Outcome("./before", {});  // a sanitizer's look at the streams needs some, once
    const int next = dup(0);
    close(next);
    const rlimit none_left = {static_cast<rlim_t>(next), static_cast<rlim_t>(next)};
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none_left));
  };
  const Json::Value small = "x";
  const Json::Value large = std::string(50'000, 'x');
  const std::string deep(99, '[');  // one level less than may be
  const std::string end(99, ']');
  const struct {
    const char* path;
    std::string text;  // written there first, unless it is empty
    const Json::Value& document;
    const char* outcome;
    std::function<void()> before;
  } cases[] = {
      {"./1", "{\"a\": [1, 2.5, \"x\"]} // why\n", large, " r+ R+ w+= W+= l+", nothing},
      {"./2", deep + "[\"\\\"[{" + deep + "\"] // [[{\n/*" + deep + "*/" + end, small,
       " r+ R+ w+= W+= l+", nothing},
      {"./3", deep + "[[]]" + end, small, " r-P R-P w+= W+= l+", nothing},
      {"./new", "", small, " r- R- w+= W+= l+", nothing},
      {"./missing/x", "", small, " r- R- w-F W-F l+", nothing},
      {"", "", small, " r-B R-B w-B W-B l-N", nothing},
      {"name", "{", small, " r-P R-P w+= W+= l-N", nothing},
      {"./folder", "", small, " r-P R-P w-F W-F l-", nothing},
      {"./fifo", "", small, " r- R- w-F W-F l-", nothing},
      {"/dev/null", "", small, " r- R- w-F W-F l-", nothing},
      {"./private/y/x", "", small, " r- R- w-F W-F l-D", nothing},
      {"./readonly/file", "", small, " r+ R+ w-F W-F l+", nothing},
      {"./readonly/new", "", small, " r- R- w-F W-F l-", nothing},
      // A short document fails as the file is closed, which is not reported.
      {"./full/file", "", small, " r-P R-P w+ W+ l+", nothing},
      {"./full/file", "", large, " r-P R-P w-F W-F l+", nothing},
      {"./private", "", small, " r- R- w-F W-F l-", no_descriptors},
      {"./private", "", small, " r- R- w-F W-F l-", SomeoneElse},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.path);
    if (!row.text.empty()) {
      SetText(row.path, row.text);
    }
    InChild([&] {
      row.before();
      EXPECT_EQ(row.outcome, Outcome(row.path, row.document));
    });
  }
  EXPECT_EQ(0, umount("full"));
  EXPECT_EQ(0, umount("readonly"));
}

TEST_F(JsonUtilsTest, CreatesAndLocksAsItsModesSay) {
  umask(0);
  EXPECT_TRUE(WriteJsonToFile("file", {}));
  EXPECT_EQ(0664U, ModeOf("file"));
  EXPECT_TRUE(WriteJsonToFileWithoutLock("unlocked", {}));
  EXPECT_EQ(0666U, ModeOf("unlocked"));
  EXPECT_TRUE(Lock("./lock", true).IsLockSucess());
  EXPECT_EQ(0644U, ModeOf("lock"));
  umask(077);
  Lock held("/tmp/test/made/by/lock", false);
  EXPECT_EQ(0755U, ModeOf("made"));
  EXPECT_EQ(0755U, ModeOf("made/by"));
  EXPECT_EQ(0600U, ModeOf("made/by/lock"));
  EXPECT_TRUE(held.IsLockSucess());
  EXPECT_FALSE(Lock("made/by/lock", false).IsLockSucess());
  held.UnlockFile();
  held.UnlockFile();
  EXPECT_FALSE(held.IsLockSucess());
  EXPECT_TRUE(Lock("made/by/lock", false).IsLockSucess());

  ASSERT_EQ(0, flock(open("file", O_RDONLY | O_CLOEXEC), LOCK_SH));
  Json::Value root;
  EXPECT_TRUE(ReadJsonFromFile("file", root));  // does not wait
  EXPECT_FALSE(Lock("./file", false).IsLockSucess());
}

TEST_F(JsonUtilsTest, ALockedReaderNeverSeesHalfADocument) {
  const Json::Value documents[] = {std::string(20'000, 'a'), std::string(200'000, 'b')};
  ASSERT_TRUE(WriteJsonToFile("file", documents[0]));
  const pid_t writer = StartChild([&] {
    for (unsigned i = 0;; ++i) {
      WriteJsonToFile("file", documents[i % 2]);
      usleep(200);  // lets the reader in
    }
  });
  Json::Value root;
  int seen[2] = {};
  while (seen[0] < 50 || seen[1] < 50) {
    usleep(200);  // lets the writer in
    ASSERT_TRUE(ReadJsonFromFile("file", root));
    ASSERT_TRUE(root == documents[0] || root == documents[1]);
    ++seen[root == documents[1]];
  }
  // Without the lock halves are there to be seen.
  while (ReadJsonFromFileWithoutLock("file", root)) {
  }
  kill(writer, SIGKILL);
  EXPECT_EQ(-SIGKILL, EndOf(writer));
}

}  // namespace
