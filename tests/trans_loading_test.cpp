// The record of transcodes: in use, when a call fails, when a process dies, and when somebody on
// the machine means harm. docs/transcoding-record.md says the same in words.
#include <json/json.h>
#include <reelhouse/trans_loading.h>

#include <filesystem>
#include <iterator>
#include <set>

#include "support/processes.h"
#include "support/subprocess.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

const std::string path = "/tmp/Reelhouse/enabled";
const std::string record = Place(path);

// What is logged about it.
const std::string no_lock = "3 trans_loading.cpp: TransLoading lock file failed";
const std::string needs_lock = "3 trans_loading.cpp: TransEnable need to lock file";
const std::string not_parsed = "3 json_utils.cpp: Failed to parse json file [" + path + "]";
const std::string not_loaded = "3 trans_loading.cpp: ReadAndCheckAlive failed";
const std::string not_written = "3 json_utils.cpp: failed to write json file [" + path + "]";
const std::string not_back = "3 trans_loading.cpp: VTE - Failed to write json file [" + path + "].";
const std::string not_opened =
    "6 trans_loading.cpp: TransLoading - Failed to change file mode [" + path + "]";

std::string Entry(int pid, bool hardware, bool offline = false) {
  const auto text = [](bool flag) { return flag ? "true" : "false"; };
  return "{\"PID\":" + std::to_string(pid) + ",\"hardware_transcode\":" + text(hardware) +
         ",\"offline_conversion\":" + text(offline) + "}";
}

/// A record of so many entries of process 1.
std::string Entries(std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += (i == 0 ? "[" : ",") + Entry(1, true);
  }
  return text + "]\n";
}

/// Begins with an empty record, on a machine that transcodes by software only.
class TransLoadingTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    Place(path);
    { const TransLoading makes_the_detector_too; }
    TakeLog();
  }
};

TEST_F(TransLoadingTest, ComesToLifeAndIsKept) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto descriptors_before = descriptors();
  fs::remove_all(fs::path(record).parent_path());
  {
    const TransLoading first;
    EXPECT_FALSE(Lock(path, false).IsLockSucess());
    EXPECT_EQ("", Text(record));
    EXPECT_EQ(Lines{not_parsed}, LogLines());
  }
  EXPECT_EQ("[]\n", Text(record));
  EXPECT_EQ(0666U, ModeOf(record));
  const int self = getpid();
  {
    TransLoading transaction;
    EXPECT_TRUE(transaction.SaveTransPID(self, true, false));
    EXPECT_FALSE(transaction.IsOffineConverting());
    EXPECT_TRUE(transaction.SaveTransPID(1, false, true));
    EXPECT_TRUE(transaction.SaveTransPID(self, true, false));
    EXPECT_TRUE(transaction.IsHardwareTranscoding() && transaction.IsOffineConverting());
  }
  const std::string other = Entry(1, false, true);
  EXPECT_EQ("[" + Entry(self, true) + "," + other + "," + Entry(self, true) + "]\n", Text(record));
  {
    TransLoading transaction;
    EXPECT_TRUE(transaction.RemoveTransPIDLock(-7));
    EXPECT_TRUE(transaction.IsHardwareTranscoding());
    EXPECT_TRUE(transaction.RemoveTransPIDLock(self));
    EXPECT_FALSE(transaction.IsHardwareTranscoding());
    // Adds what the file holds, and it holds what was there before.
    EXPECT_TRUE(transaction.ReadAndCheckAlive());
    EXPECT_TRUE(transaction.RemoveTransPIDLock(self));
  }
  EXPECT_EQ("[" + other + "," + other + "]\n", Text(record));
  EXPECT_EQ(Lines(), LogLines());
  EXPECT_EQ(descriptors_before, descriptors());
}

TEST_F(TransLoadingTest, LoadsTheLiveEntriesAndNothingElse) {
  const pid_t dead = StartChild([] {});
  EndOf(dead);
  const std::string self = std::to_string(getpid());
  const std::string live = Entry(getpid(), false);
  const std::string odd = "{\"PID\":" + self + ",\"hardware_transcode\":\"true\",\"x\":[{}]}";
  const struct {
    std::string before;
    std::string after;
    Lines lines;
  } cases[] = {
      {"[" + Entry(dead, true) + "," + live + "]", "[" + live + "]", {}},
      {"[" + odd + "]", "[" + odd + "]", {}},
      {"[{},{\"pid\":" + self + "},{\"PID\":\"" + self + "\"},{\"PID\":" + self + ".5}," +
           "{\"PID\":0},{\"PID\":-1},{\"PID\":4294967297},{\"PID\":1e300},null,[[]]," + live + "]",
       "[" + live + "]",
       {}},
      {live, "[]", {not_loaded}},
      {"[" + live, "[]", {not_parsed, not_loaded}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.before);
    SetText(record, row.before);
    EXPECT_FALSE(TransLoading().IsHardwareTranscoding());
    EXPECT_EQ(row.after + "\n", Text(record));
    EXPECT_EQ(row.lines, LogLines());
  }
}

TEST_F(TransLoadingTest, ProcessesThatShareTheRecordLoseNothing) {
  pid_t users[8];
  for (pid_t& user : users) {
    user = StartChild([] {
      const std::string own = Entry(getpid(), true);
      for (int n = 0; n < 300 && !HasFailure(); ++n) {
        TransLoading transaction;
        EXPECT_EQ(n % 2 == 1, Text(record).find(own) != std::string::npos);
        n % 2 == 0 ? transaction.SaveTransPID(getpid(), true, false)
                   : transaction.RemoveTransPIDLock(getpid());
      }
    });
  }
  for (const pid_t user : users) {
    EXPECT_EQ(0, EndOf(user));
  }
  EXPECT_EQ("[]\n", Text(record));
  EXPECT_EQ(Lines(), LogLines());
}

// ---- one system call at a time ------------------------------------------------------------------

/// strace spoils one call on the record after the other, each in a run of `velmora-transcode add`.
/// That makes two transactions: if one left the lock behind, the other would wait for ever.
class TransLoadingFaultTest : public TransLoadingTest {
 protected:
  void SetUp() override {
    TransLoadingTest::SetUp();
    if (std::system("strace -qq -o trace true") != 0) {
      GTEST_SKIP() << "strace is missing, or may not trace here";
    }
  }

  /// Each run begins with a record of other entries, and `look` sees the call and these.
  template <typename Look>
  void SpoilEach(const std::string& fault, const std::vector<std::string>& calls, Look look) {
    const std::string self = std::to_string(getpid());
    for (const std::size_t entries : {1U, 200U}) {  // less than is written at once, and more
      for (const std::string& call : calls) {
        const std::string before = Entries(entries);
        for (int n = 1; !HasFailure(); ++n) {
          const std::string rule = "inject=" + call + ":when=" + std::to_string(n) + ":" + fault;
          SCOPED_TRACE(rule + ", " + std::to_string(entries) + " entries");
          SetText(record, before);
          const Finished finished =
              RunProcess({"/usr/bin/env", "strace", "-qq", "-o", "trace", "-P", record, "-e", rule,
                          "-E", "LD_PRELOAD=" VELMORA_TEST_MACHINE_LIBRARY, "-E",
                          "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0",
                          VELMORA_TRANSCODE_PROGRAM, "add", self, "--hardware"});
          trace_ = Text("trace");
          if (finished.status != -1 && trace_.find("(INJECTED)") == std::string::npos) {
            EXPECT_TRUE(n > 1 && finished.status == 0) << finished.error;
            break;
          }
          EXPECT_EQ(fault.ends_with("KILL"), finished.status == -1);
          look(call, before.substr(0, before.size() - 2));
        }
      }
    }
  }

  // Regular expressions for those whose names differ with the processor.
  const std::vector<std::string> all_ = {"openat", "/stat", "flock", "read",
                                         "write",  "close", "/chmod"};
  std::string trace_;
};

TEST_F(TransLoadingFaultTest, NoCallThatFailsLosesAnEntryWithoutALogLine) {
  std::set<std::string> losing;
  SpoilEach("error=EIO", all_, [&](auto call, auto before) {
    const Lines lines = LogLines();
    { const TransLoading next; }
    if (!Text(record).starts_with(before)) {
      losing.insert(call);
      EXPECT_TRUE(!lines.empty() || LogLines() == Lines{not_parsed});
    }
  });
  EXPECT_EQ((std::set<std::string>{"/stat", "openat", "read", "write"}), losing);
}

TEST_F(TransLoadingFaultTest, ASignalMakesNoCallFail) {
  SpoilEach("error=EINTR", {"openat", "flock", "read", "write"}, [](auto, auto before) {
    EXPECT_EQ(Lines(), LogLines());
    EXPECT_EQ(before + "," + Entry(getpid(), true) + "]\n", Text(record));
  });
}

TEST_F(TransLoadingFaultTest, OnlyADeathBetweenEmptyingAndWritingLosesEntries) {
  int losses = 0;
  // An error too, or the call would be made before the process dies.
  SpoilEach("error=EIO:signal=KILL", all_, [&](auto, auto before) {
    const std::string made = trace_.substr(0, trace_.rfind('\n', trace_.rfind("+++ killed") - 2));
    const bool between = made.rfind("O_TRUNC") + 1 > made.rfind("write(") + 1;  // 0 for neither
    EXPECT_EQ(between, Text(record).empty());
    { const TransLoading next; }
    EXPECT_EQ(between ? Lines{not_parsed} : Lines(), LogLines());
    EXPECT_TRUE(between ? Text(record) == "[]\n" : Text(record).starts_with(before));
    losses += between ? 1 : 0;
  });
  EXPECT_GT(losses, 0);
}

// ---- a shared /tmp ------------------------------------------------------------------------------

TEST_F(TransLoadingTest, WhatOthersPutInItsPlaceIsRefusedSeenOrFollowed) {
  constexpr uid_t self = 0;
  constexpr uid_t service = 65533;  // neither root nor the attacker, whose the folder is
  const bool has_users = setresuid(service, service, 0) == 0 && setresuid(0, 0, 0) == 0;
  const Lines refused = {no_lock, needs_lock, needs_lock, needs_lock, needs_lock, needs_lock};
  const std::string place_one = "echo '[" + Entry(1, true) + "]' >enabled; chmod ";
  const std::string own = fs::current_path();
  SetText("ours", "precious");
  const struct {
    std::string attack;
    uid_t user;  // who makes the transaction
    Lines lines;
    std::string text;  // of the file that the record's path leads to
  } cases[] = {
      {"mkfifo enabled", self, refused, ""},
      {"rmdir ../Reelhouse; mkfifo ../Reelhouse", self, refused, ""},
      {"chmod 700 .", service, refused, ""},
      {place_one + "600 enabled", service, refused, Entries(1)},
      {place_one + "644 enabled", service, {not_written, not_back, not_opened}, Entries(1)},
      {place_one + "666 enabled", service, {not_opened}, Entries(2)},
      // Left open: what the attacker may not touch is overwritten, or created, by who may.
      {"ln -s " + own + "/ours enabled", self, {not_parsed, not_loaded}, Entries(1)},
      {"ln -s " + own + "/new enabled", self, {not_parsed}, Entries(1)},
  };
  for (const auto& row : cases) {
    if (row.user == self || has_users) {
      SCOPED_TRACE(row.attack);
      const std::string script =
          "rm -rf $0; mkdir $0; cd $0; " + row.attack + (has_users ? "; chown -hR 65534 $0" : "");
      RunProcess({"/bin/sh", "-c", script, fs::path(record).parent_path()});
      InChild([&] {
        EXPECT_TRUE(row.user == self || setuid(row.user) == 0);
        TransLoading transaction;
        const bool locked = transaction.IsLockSucess();
        EXPECT_EQ(locked, transaction.SaveTransPID(1, true, false));
        EXPECT_EQ(locked, transaction.IsHardwareTranscoding());
        EXPECT_EQ(locked, transaction.RemoveTransPIDLock(0));
        EXPECT_TRUE(locked || !transaction.TransEnable(false));
        EXPECT_FALSE(transaction.IsOffineConverting());
        // These go by what was loaded and by the limits of an unknown machine, locked or not.
        EXPECT_TRUE(transaction.CheckTransEnable(false) && transaction.SoftwareTransEnable());
        EXPECT_FALSE(transaction.CheckTransEnable(true) || transaction.HardwareTransEnable());
      });
      EXPECT_EQ(row.lines, LogLines());
      EXPECT_EQ(row.text, fs::is_regular_file(record) ? Text(record) : "");
    }
  }
  EXPECT_EQ(0666U, ModeOf("ours"));
  if (!has_users) {
    GTEST_SKIP() << "only one user here";
  }
}

}  // namespace
