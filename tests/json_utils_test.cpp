// The locks, and the JSON files under them.
#include <json/json.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/lock.h>
#include <spawn.h>
#include <sys/file.h>

#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "support/processes.h"
#include "util/json_file_lock.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

class JsonUtilsTest : public OwnFolderTest {};

/// A document of `size` times five bytes, the same number throughout.
Json::Value Document(int number, unsigned size) {
  Json::Value root(Json::arrayValue);
  for (unsigned i = 0; i < size; ++i) {
    root.append(1000 + number);
  }
  return root;
}

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
  std::string objects;
  for (int i = 0; i < 100'000; ++i) {
    objects += "{\"a\":";
  }
  const auto nothing = [] {};
  const auto no_descriptors = [] {
    Outcome("./before", {});  // a sanitizer's look at the streams needs some, once
    NoDescriptors();
  };
  const Json::Value small = Document(1, 10);
  const Json::Value large = Document(1, 10'000);
  const struct {
    const char* path;
    std::string text;  // written there first, unless it is empty
    const Json::Value& document;
    const char* outcome;
    std::function<void()> before;
  } cases[] = {
      {"./1", "{\"a\": [1, 2.5, \"x\"]} // why\n", small, " r+ R+ w+= W+= l+", nothing},
      {"./2", "5", large, " r+ R+ w+= W+= l+", nothing},
      // JsonCpp's limit is 256 or 1000, by its version.
      {"./2", std::string(256, '[') + std::string(256, ']'), small, " r+ R+ w+= W+= l+", nothing},
      {"./3", std::string(1001, '[') + std::string(1001, ']'), small, " r-P R-P w+= W+= l+",
       nothing},
      {"./4", std::string(1 << 20, '['), small, " r-P R-P w+= W+= l+", nothing},
      {"./5", objects, small, " r-P R-P w+= W+= l+", nothing},
      {"./6", std::string("\0\xff[", 3), small, " r-P R-P w+= W+= l+", nothing},
      {"./new", "", small, " r- R- w+= W+= l+", nothing},
      {"./missing/x", "", small, " r- R- w-F W-F l+", nothing},
      {"", "", small, " r-B R-B w-B W-B l-N", nothing},
      {"name", "{", small, " r-P R-P w+= W+= l-N", nothing},
      {"./folder", "", small, " r-P R-P w-F W-F l-", nothing},
      {"./fifo", "", small, " r- R- w-F W-F l-", nothing},
      {"./private/y/x", "", small, " r- R- w-F W-F l-D", nothing},
      {"./readonly/file", "", small, " r+ R+ w-F W-F l+", nothing},
      {"./readonly/new", "", small, " r- R- w-F W-F l-", nothing},
      {"./readonly/new/x", "", small, " r- R- w-F W-F l-D", nothing},
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
  { const JsonFileLock reading(LockMode::Read, "file"); }
  EXPECT_FALSE(fs::exists("file"));
  { const JsonFileLock writing(LockMode::Write, "file"); }
  EXPECT_EQ(0664U, ModeOf("file"));
  EXPECT_EQ(0U, fs::file_size("file"));
  EXPECT_TRUE(WriteJsonToFileWithoutLock("unlocked", {}));
  EXPECT_EQ(0666U, ModeOf("unlocked"));
  {
    const JsonFileLock first(LockMode::Read, "file");
    const JsonFileLock second(LockMode::Read, "file");  // does not wait
    EXPECT_FALSE(Lock("./file", false).IsLockSucess());
  }
  EXPECT_TRUE(Lock("./file", false).IsLockSucess());

  EXPECT_TRUE(Lock("/tmp/test/open/lock", true).IsLockSucess());
  EXPECT_EQ(0644U, ModeOf("open/lock"));
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
}

TEST_F(JsonUtilsTest, SignalsDoNotEndTheWait) {
  Lock held("./lock", true);
  const pid_t child = StartChild([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    EXPECT_TRUE(Lock("./lock", true).IsLockSucess());
  });
  const std::string waiter = "-> FLOCK  ADVISORY  WRITE " + std::to_string(child) + " ";
  const auto is_waiting = [&] { return Text("/proc/locks").find(waiter) != std::string::npos; };
  while (!is_waiting()) {
    usleep(1000);
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(0, kill(child, SIGUSR1));
    usleep(1000);
  }
  EXPECT_TRUE(is_waiting());
  held.UnlockFile();
  EXPECT_EQ(0, EndOf(child));
}

TEST_F(JsonUtilsTest, ALockIsFreeAtOnceWhenItsHolderIsKilledThoughATranscoderLivesOn) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const pid_t holder = StartChild([&] {
    const Lock lock("./lock", true);
    std::string words[] = {"/bin/sleep", "1000"};
    char* const arguments[] = {words[0].data(), words[1].data(), nullptr};
    pid_t transcoder = -1;
    EXPECT_EQ(0, posix_spawn(&transcoder, arguments[0], nullptr, nullptr, arguments, nullptr));
    EXPECT_EQ(ssize_t{sizeof transcoder}, write(ends[1], &transcoder, sizeof transcoder));
    pause();
  });
  pid_t transcoder = -1;
  ASSERT_EQ(ssize_t{sizeof transcoder}, read(ends[0], &transcoder, sizeof transcoder));
  // posix_spawn() may return before the new program is there, and the descriptors of the old gone.
  while (Text("/proc/" + std::to_string(transcoder) + "/comm") != "sleep\n") {
    usleep(100);
  }
  EXPECT_FALSE(Lock("./lock", false).IsLockSucess());
  kill(holder, SIGKILL);
  EXPECT_EQ(-SIGKILL, EndOf(holder));
  EXPECT_TRUE(Lock("./lock", false).IsLockSucess());
  EXPECT_EQ(0, kill(transcoder, SIGKILL));
}

TEST_F(JsonUtilsTest, ALockedReaderNeverSeesHalfADocument) {
  const Json::Value documents[] = {Document(1, 2'000), Document(2, 20'000)};
  ASSERT_TRUE(WriteJsonToFile("file", documents[0]));
  const pid_t writer = StartChild([&] {
    for (unsigned i = 0;; ++i) {
      WriteJsonToFile("file", documents[i % 2]);
      usleep(200);  // lets the readers in
    }
  });
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(StartChild([&] {
      int seen[2] = {};
      for (int reads = 0; reads < 100 || seen[0] == 0 || seen[1] == 0; ++reads) {
        Json::Value root;
        ASSERT_TRUE(ReadJsonFromFile("file", root));
        ASSERT_TRUE(root == documents[0] || root == documents[1]);
        ++seen[root == documents[1]];
      }
    }));
  }
  for (const pid_t reader : readers) {
    EXPECT_EQ(0, EndOf(reader));
  }
  // Without the lock halves are there to be seen.
  for (Json::Value root; ReadJsonFromFileWithoutLock("file", root);) {
  }
  kill(writer, SIGKILL);
  EXPECT_EQ(-SIGKILL, EndOf(writer));
}

TEST_F(JsonUtilsTest, EveryDescriptorIsClosedInProgramsThatAreStartedMeanwhile) {
  std::atomic<bool> stop = false;
  std::thread worker([&stop, document = Document(1, 10'000)] {
    for (Json::Value root; !stop;) {
      WriteJsonToFile("file", document);
      ReadJsonFromFile("file", root);
    }
  });
  // Access modes of the descriptors met: those of the two guards, the reader and the writer.
  std::multiset<int> met;
  while (met.count(O_RDONLY) < 50 || met.count(O_WRONLY) < 50 || met.count(O_RDWR) < 50) {
    for (int fd = 3; fd < 20; ++fd) {
      std::error_code gone;
      const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), gone);
      const std::string info = Text("/proc/self/fdinfo/" + std::to_string(fd));
      const std::size_t line = info.find("flags:");
      if (target == "/tmp/test/file" && line != std::string::npos) {
        const int flags = std::stoi(info.substr(line + 6), nullptr, 8);
        EXPECT_NE(0, flags & O_CLOEXEC);
        met.insert(flags & O_ACCMODE);
      }
    }
  }
  stop = true;
  worker.join();
}

}  // namespace
