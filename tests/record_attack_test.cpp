// The record and the JSON files when a call fails, when the process dies, and when somebody on the
// machine means harm. docs/transcoding-record.md says the same in words.
#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/trans_loading.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include <functional>
#include <iterator>
#include <set>

#include "support/processes.h"
#include "support/record.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

std::string Entries(int pid, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += (i == 0 ? "" : ",") + Entry(pid, true);
  }
  return "[" + text + "]\n";
}

class RecordAttackTest : public OwnFolderTest {
 protected:
  void SetUp() override {
    OwnFolderTest::SetUp();
    if (!IsSkipped()) {
      fs::remove_all("/tmp/Reelhouse");
      { const TransLoading makes_the_detector; }
      syslog(LOG_ERR, "opens its descriptor");
      TakeSyslog();
    }
  }
};

// ---- one system call at a time ------------------------------------------------------------------

constexpr int shortened = -1;  // what befalls a call: an errno, or it does half of its work,
constexpr int killed = -2;     // or the process does not live to make it

#ifdef __x86_64__

/// What may befall a call, for as much as the kernel says of it.
bool MayBefall(int fate, long call, unsigned long flags) {
  const bool writes = call == SYS_write || call == SYS_writev;
  const bool opens = call == SYS_openat;
  const bool may_wait = writes || opens || call == SYS_read || call == SYS_flock;
  switch (fate) {
    case killed:
      return true;
    case shortened:
      return writes || call == SYS_read;
    case EINTR:
      return may_wait || call == SYS_close;
    case EMFILE:
      return opens;
    case ENOSPC:
      return writes || call == SYS_mkdir || (opens && (flags & O_CREAT) != 0);
    default:
      return may_wait || call == SYS_close || call == SYS_newfstatat || call == SYS_fcntl ||
             call == SYS_chmod || call == SYS_mkdir;
  }
}

struct Befallen {
  long call = -1;        // its number; -1 for none
  bool emptied = false;  // the calls before it have emptied a file
  bool written = false;  // and filled one
};

/// Runs `body` in a child. The fate befalls the n-th of those calls that it may befall, if there
/// are so many. A child that lives on must then find the lock free and no descriptor left open.
Befallen Befall(int fate, int n, const std::function<void()>& body, const std::string& lock) {
  const pid_t child = StartChild([&] {
    const auto descriptors = [] {
      return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = descriptors();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      _exit(1);  // a stop would be for ever
    }
    raise(SIGSTOP);
    body();
    raise(SIGSTOP);
    EXPECT_EQ(before, descriptors());
    EXPECT_TRUE(Lock(lock, false).IsLockSucess());
  });
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP);
  EXPECT_EQ(0,
            ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL));
  const auto at_a_call = [&] {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
    return WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
  };
  Befallen befallen;
  while (at_a_call()) {
    user_regs_struct call = {};
    ptrace(PTRACE_GETREGS, child, nullptr, &call);
    const long number = static_cast<long>(call.orig_rax);
    const bool now = befallen.call < 0 && MayBefall(fate, number, call.rdx) && --n == 0;
    befallen.call = now ? number : befallen.call;
    if (now && fate == killed) {
      kill(child, SIGKILL);
      EXPECT_EQ(-SIGKILL, EndOf(child));
      return befallen;
    }
    if (now && fate == shortened) {
      call.rdx -= call.rdx / 2;
    } else if (now && number != SYS_close) {  // which closes in any case
      call.orig_rax = ~0ULL;
    }
    ptrace(PTRACE_SETREGS, child, nullptr, &call);
    if (befallen.call < 0) {
      befallen.emptied |= number == SYS_openat && (call.rdx & O_TRUNC) != 0;
      befallen.written |= number == SYS_write || number == SYS_writev;
    }
    EXPECT_TRUE(at_a_call());  // it returns
    if (now && fate > 0) {
      ptrace(PTRACE_GETREGS, child, nullptr, &call);
      call.rax = static_cast<unsigned long long>(-fate);
      ptrace(PTRACE_SETREGS, child, nullptr, &call);
    }
  }
  EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP) << "status " << status;
  ptrace(PTRACE_DETACH, child, nullptr, nullptr);
  EXPECT_EQ(0, EndOf(child));
  return befallen;
}

/// Lets the fate befall one call of `body` after the other, each in a run of its own, and `look` at
/// what that leaves.
template <typename Begin, typename Body, typename Look>
void BefallEach(int fate, Begin begin, Body body, const std::string& lock, Look look) {
  for (int n = 1;; ++n) {
    begin();
    const Befallen befallen = Befall(fate, n, body, lock);
    SCOPED_TRACE("fate " + std::to_string(fate) + ", call " + std::to_string(befallen.call));
    if (befallen.call < 0) {
      EXPECT_GT(n, 1);
      break;
    }
    look(befallen);
  }
}

void Transact() {
  TransLoading transaction;
  transaction.SaveTransPID(getpid(), true, false);
}

TEST_F(RecordAttackTest, NoCallThatFailsLosesAnEntryWithoutALogLine) {
  const struct {
    int fate;
    std::set<long> loses;  // the calls that lost others' entries; writev counts as write
  } cases[] = {
      {EINTR, {}},
      {shortened, {}},
      {EMFILE, {SYS_openat}},
      {ENOSPC, {SYS_write}},
      {EIO, {SYS_newfstatat, SYS_openat, SYS_fcntl, SYS_read, SYS_write}},
  };
  for (const auto& row : cases) {
    std::set<long> loses;
    for (const int count : {1, 200}) {  // what is written as the file is closed, and before
      const std::string before = Entries(getpid(), count);
      BefallEach(
          row.fate, [&] { SetText(record, before); }, Transact, record,
          [&](const Befallen& befallen) {
            const Lines lines = LogLines();
            if (row.loses.empty()) {
              EXPECT_EQ(Lines(), lines);
              EXPECT_GT(Text(record).size(), before.size());
            }
            { const TransLoading next; }
            const Lines later = LogLines();
            if (Text(record) == before) {
              EXPECT_EQ(Lines(), later);
              return;
            }
            EXPECT_EQ("[]\n", Text(record));
            loses.insert(befallen.call == SYS_writev ? SYS_write : befallen.call);
            // A short record fails as the file is closed, which only the next reader notices.
            EXPECT_TRUE(!lines.empty() || (count == 1 && later == Lines{not_parsed}));
          });
    }
    EXPECT_EQ(row.loses, loses) << row.fate;
  }
}

TEST_F(RecordAttackTest, AWriteThatFailsSaysSoOrIsFoundAtTheNextRead) {
  const Lines failed = {"11 json_utils.cpp:# failed to write json file [./file]",
                        "11 test.cpp:# returned false"};
  for (const int fate : {EINTR, shortened, EMFILE, ENOSPC, EIO}) {
    for (const std::size_t size : {1U, 20'000U}) {
      const Json::Value document(std::string(size, 'n'));
      BefallEach(
          fate, [] { SetText("file", "\"old\"\n"); },
          [&] {
            if (!WriteJsonToFile("./file", document)) {
              syslog(LOG_ERR, "test.cpp:1 returned false");
            }
          },
          "./file",
          [&](const Befallen&) {
            const Lines lines = LogLines();
            Json::Value root;
            const bool done = ReadJsonFromFile("file", root) && root == document;
            EXPECT_TRUE(done || (fate != EINTR && fate != shortened));
            EXPECT_TRUE(lines == failed || (lines.empty() && (done || size == 1)));
            TakeSyslog();
          });
    }
  }
}

TEST_F(RecordAttackTest, AfterADeathAtAnyCallTheNextTransactionHealsTheRecord) {
  for (const int count : {0, 1, 200}) {
    const std::string before = count == 0 ? "" : Entries(getpid(), count);
    int deaths_that_lose = 0;
    const auto begin = [&] {
      fs::remove_all("/tmp/Reelhouse");
      if (count > 0) {
        fs::create_directory("/tmp/Reelhouse");
        SetText(record, before);
      }
    };
    BefallEach(killed, begin, Transact, record, [&](const Befallen& befallen) {
      const std::string left = Text(record);
      TakeSyslog();
      { const TransLoading next; }
      EXPECT_EQ(left.empty() ? Lines{not_parsed} : Lines(), LogLines());
      EXPECT_EQ(left.empty() || count == 0 ? "[]\n" : before, Text(record));
      EXPECT_EQ(0666U, ModeOf(record));
      if (count > 0) {
        EXPECT_EQ(befallen.emptied && !befallen.written, left.empty());
        deaths_that_lose += left.empty() ? 1 : 0;
      }
    });
    EXPECT_EQ(count > 0, deaths_that_lose > 0);
  }
}

#else

TEST_F(RecordAttackTest, OneSystemCallAtATime) {
  GTEST_SKIP() << "changes the registers of a child, and knows those of x86-64 only";
}

#endif

// ---- a shared /tmp ------------------------------------------------------------------------------

TEST_F(RecordAttackTest, WhatOthersPutInItsPlaceIsRefusedSeenOrFollowed) {
  constexpr uid_t service =
      65533;  // neither root nor the attacker, to whom all in the folder belongs
  if (setresuid(service, service, 0) != 0 || setresuid(0, 0, 0) != 0) {
    GTEST_SKIP() << "only one user here";
  }
  const auto attack = [](const std::string& commands) {
    const std::string begin = "cd /tmp; rm -rf Reelhouse; mkdir Reelhouse; cd Reelhouse; ";
    const std::string end = "; chown -hR 65534 /tmp/Reelhouse";
    EXPECT_EQ(0, std::system((begin + commands + end).c_str())) << commands;
  };
  const auto transact = [](uid_t user) {
    EXPECT_TRUE(InChild([&] {
      EXPECT_EQ(0, setuid(user));
      TransLoading transaction;
      EXPECT_TRUE(!transaction.IsLockSucess() || transaction.SaveTransPID(1, true, false));
    }));
    return LogLines();
  };
  const std::string one = Entries(1, 1);
  const std::string two = Entries(1, 2);
  const std::string place_one = "echo '[" + Entry(1, true) + "]' >enabled; chmod ";
  SetText("ours", "precious");
  const struct {
    std::string attack;
    uid_t user;
    Lines lines;
    std::string text;  // of the file that the record's path leads to
  } cases[] = {
      {"mkfifo enabled", 0, {no_lock}, ""},
      {"rmdir ../Reelhouse; mkfifo ../Reelhouse", 0, {no_lock}, ""},
      {"chmod 700 .", service, {no_lock}, ""},
      {place_one + "600 enabled", service, {no_lock}, one},
      {place_one + "644 enabled", service, {not_written, not_back, not_opened}, one},
      {place_one + "666 enabled", service, {not_opened}, two},
      {"echo } >enabled; chmod 666 enabled", service, {not_parsed, not_loaded, not_opened}, one},
      // Left open: what the attacker may not touch is overwritten, or created, by who may.
      {"ln -s /tmp/test/ours enabled", 0, {not_parsed, not_loaded}, one},
      {"ln -s /tmp/test/new enabled", 0, {not_parsed}, one},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.attack);
    attack(row.attack);
    EXPECT_EQ(row.lines, transact(row.user));
    EXPECT_EQ(row.text, fs::is_regular_file(record) ? Text(record) : "");
  }
  EXPECT_EQ(0666U, ModeOf("ours"));

  // Settings of the whole machine, which may not be ours to change.
  const auto granted = [&](const std::string& setting, const char* value,
                           const std::string& commands, const Lines& refusal) {
    const std::string before = Text(setting);
    SetText(setting, value);
    std::string outcome = "?";
    if (Text(setting)[0] == value[0]) {
      attack(place_one + "666 enabled");
      EXPECT_EQ(0, std::system(commands.c_str()));
      const Lines lines = transact(service);
      EXPECT_TRUE(lines == Lines{not_opened} || lines == refusal);
      outcome = lines == refusal ? "-" : "+";
    }
    SetText(setting, before);
    return outcome;
  };
  std::string outcome;
  for (const char* const value : {"0", "1", "2"}) {
    for (const char* const mode : {"755", "1775", "1777"}) {
      outcome +=
          granted("/proc/sys/fs/protected_regular", value,
                  std::string("cd /tmp/Reelhouse; chown 0 .; chmod ") + mode + " .", {no_lock});
    }
  }
  for (const char* const value : {"0", "1"}) {
    outcome += granted("/proc/sys/fs/protected_symlinks", value,
                       "cd /tmp; rm -rf test/R; mv Reelhouse test/R; ln -s test/R Reelhouse; "
                       "chown -h 65534 Reelhouse",
                       {no_folder, no_lock});
  }
  EXPECT_TRUE(outcome == "+++++-+--+-" || outcome == "???????????") << outcome;
}

TEST_F(RecordAttackTest, AForeignHolderIsWaitedForAndARenamedRecordHasTwo) {
  const pid_t holder = StartChild([] {
    EXPECT_TRUE(setuid(65534) == 0 || errno == EINVAL);  // EINVAL: there is only one user here
    flock(open(record.c_str(), O_RDONLY | O_CLOEXEC), LOCK_SH);  // reading is enough
    pause();
  });
  while (Lock(record, false).IsLockSucess()) {
    usleep(1000);
  }
  const pid_t waiter = StartChild([] { EXPECT_TRUE(TransLoading().IsLockSucess()); });
  const std::string line = "-> FLOCK  ADVISORY  WRITE " + std::to_string(waiter) + " ";
  while (Text("/proc/locks").find(line) == std::string::npos) {
    usleep(1000);
  }
  kill(holder, SIGKILL);
  EXPECT_EQ(-SIGKILL, EndOf(holder));
  EXPECT_EQ(0, EndOf(waiter));
  TakeSyslog();
  {
    const TransLoading first;
    fs::rename(record, "renamed");
    InChild([] {
      TransLoading second;
      EXPECT_TRUE(second.SaveTransPID(1, true, false));
    });
    EXPECT_EQ(Entries(1, 1), Text(record));
  }
  EXPECT_EQ("[]\n", Text(record));
  EXPECT_EQ(Lines{not_parsed}, LogLines());  // of the record that the second has made
}

}  // namespace
