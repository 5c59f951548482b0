// The record of transcodes: in use, when a call fails, when the process dies, and when somebody on
// the machine means harm. docs/transcoding-record.md says the same in words.
#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/trans_loading.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include <array>
#include <atomic>
#include <climits>
#include <functional>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <set>

#include "support/processes.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

// Which allocation from now on finds no memory; negative for none.
int allocations_left = -1;

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = allocations_left-- == 0 ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

// Not inlined, or the compiler takes the pair for a mistake.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

const std::string record = "/tmp/Reelhouse/enabled";

// What is logged about it, as LogLines() gives it.
const std::string no_lock = "11 trans_loading.cpp:# TransLoading lock file failed";
const std::string needs_lock = "11 trans_loading.cpp:# TransEnable need to lock file";
const std::string not_parsed = "11 json_utils.cpp:# Failed to parse json file [" + record + "]";
const std::string not_loaded = "11 trans_loading.cpp:# ReadAndCheckAlive failed";
const std::string not_written = "11 json_utils.cpp:# failed to write json file [" + record + "]";
const std::string not_back =
    "11 trans_loading.cpp:# VTE - Failed to write json file [" + record + "].";
const std::string not_opened =
    "14 trans_loading.cpp:# TransLoading - Failed to change file mode [" + record + "]";

std::string Entry(int pid, bool hardware, bool offline = false) {
  const auto text = [](bool flag) { return flag ? "true" : "false"; };
  return "{\"PID\":" + std::to_string(pid) + ",\"hardware_transcode\":" + text(hardware) +
         ",\"offline_conversion\":" + text(offline) + "}";
}

std::string Entries(int pid, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += (i == 0 ? "" : ",") + Entry(pid, true);
  }
  return "[" + text + "]\n";
}

/// Begins with an empty record.
class RecordTest : public OwnFolderTest {
 protected:
  void SetUp() override {
    OwnFolderTest::SetUp();
    if (!IsSkipped()) {
      fs::remove_all("/tmp/Reelhouse");
      { const TransLoading makes_the_detector_too; }
      TakeSyslog();
    }
  }
};

// ---- in use -------------------------------------------------------------------------------------

TEST_F(RecordTest, ComesToLifeAndIsKept) {
  fs::remove(record);
  {
    const TransLoading first;
    EXPECT_FALSE(Lock(record, false).IsLockSucess());
    EXPECT_EQ("", Text(record));
    EXPECT_EQ(Lines{not_parsed}, LogLines());
  }
  EXPECT_EQ("[]\n", Text(record));
  EXPECT_EQ(0666U, ModeOf(record));
  const int self = getpid();
  const int parent = getppid();
  {
    TransLoading transaction;
    EXPECT_TRUE(transaction.SaveTransPID(self, true, false));
    EXPECT_FALSE(transaction.IsOffineConverting());
    EXPECT_TRUE(transaction.SaveTransPID(parent, false, true));
    EXPECT_TRUE(transaction.SaveTransPID(self, true, false));
    EXPECT_TRUE(transaction.IsHardwareTranscoding() && transaction.IsOffineConverting());
  }
  const std::string other = Entry(parent, false, true);
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
}

TEST_F(RecordTest, LoadsTheLiveEntriesAndNothingElse) {
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

TEST_F(RecordTest, ThrowsNothingWhenMemoryRunsOut) {
  int failures = 0;
  for (bool failed = true; failed; ++failures) {
    SetText(record, Entries(getpid(), 1));
    std::optional<TransLoading> transaction;
    allocations_left = failures;
    try {
      transaction.emplace();
      transaction->SaveTransPID(getpid(), true, true);
      transaction->RemoveTransPIDLock(getpid());
    } catch (const std::bad_alloc&) {
      EXPECT_FALSE(transaction.has_value()) << "only the constructor may throw";
    }
    transaction.reset();
    failed = allocations_left < 0;
    allocations_left = -1;
    EXPECT_TRUE(Lock(record, false).IsLockSucess()) << failures;
    TakeSyslog();
  }
  EXPECT_GT(failures, 20);
}

/// Adds and removes the caller's entry by turns, and counts the records that it finds empty. Only
/// those, which a process has died over, may have lost the entry.
void TransactUnderFire(std::atomic<int>& emptied, int times) {
  const std::string own = Entry(getpid(), true);
  int emptied_before = 0;
  for (int n = 0; n < times && !testing::Test::HasFailure(); ++n) {
    TransLoading transaction;
    const std::string text = Text(record);
    emptied += text.empty() ? 1 : 0;
    EXPECT_TRUE(emptied > emptied_before || (text.find(own) != std::string::npos) == (n % 2 == 1))
        << text;
    emptied_before = emptied;
    n % 2 == 0 ? transaction.SaveTransPID(getpid(), true, false)
               : transaction.RemoveTransPIDLock(getpid());
  }
}

TEST_F(RecordTest, LosesNothingUnderFire) {
  void* const shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, shared);
  std::atomic<int>& emptied = *new (shared) std::atomic<int>(0);
  constexpr std::size_t survivors = 8;
  for (std::size_t i = 0; i < survivors; ++i) {
    StartChild([&emptied] { TransactUnderFire(emptied, 500); });
  }
  std::mt19937 random(std::random_device{}());
  int shot = 0;
  int logged = 0;
  for (std::size_t ended = 0; ended < survivors;) {
    std::array<pid_t, 8> victims = {};
    for (pid_t& victim : victims) {
      victim = StartChild([&emptied] { TransactUnderFire(emptied, INT_MAX); });
    }
    usleep(static_cast<useconds_t>(random() % 10'000));
    for (const pid_t victim : victims) {
      kill(victim, SIGKILL);
      EXPECT_EQ(-SIGKILL, EndOf(victim));
      ++shot;
    }
    for (int status = 0; waitpid(-1, &status, WNOHANG) > 0; ++ended) {
      EXPECT_EQ(0, status);
    }
    for (const std::string& line : LogLines()) {
      EXPECT_EQ(not_parsed, line);  // an empty record
      ++logged;
    }
  }
  std::printf("%d processes shot, %d records emptied by it\n", shot, emptied.load());
  EXPECT_GE(shot, 8);
  EXPECT_LE(emptied, shot);
  EXPECT_LE(emptied, logged);
  { const TransLoading drops_the_dead; }
  EXPECT_EQ("[]\n", Text(record));
}

// ---- one system call at a time ------------------------------------------------------------------

#ifdef __x86_64__

constexpr int shortened = -1;  // what befalls a call: an errno, or it does half of its work,
constexpr int killed = -2;     // or the process does not live to make it

struct Fate {
  int what;
  std::set<long> calls;  // those that it may befall, for as much as the kernel says of it
  std::set<long> loses;  // those that lose others' entries
};

const Fate fates[] = {
    {EINTR, {SYS_openat, SYS_flock, SYS_read, SYS_write, SYS_close}, {}},
    {shortened, {SYS_read, SYS_write}, {}},
    {EMFILE, {SYS_openat}, {SYS_openat}},
    {ENOSPC, {SYS_write}, {SYS_write}},
    {EIO,
     {SYS_newfstatat, SYS_openat, SYS_flock, SYS_read, SYS_write, SYS_close, SYS_chmod},
     {SYS_newfstatat, SYS_openat, SYS_read, SYS_write}},
};

struct Befallen {
  long call = -1;        // its number; -1 for none
  bool emptied = false;  // the calls before it have emptied a file
  bool written = false;  // and filled one
};

/// Runs `body` in a child. The fate befalls the n-th of those calls that it may befall, if there
/// are so many. A child that lives on must then find the lock free and no descriptor left open.
Befallen Befall(const Fate& fate, int n, const std::function<void()>& body) {
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
    EXPECT_TRUE(Lock(record, false).IsLockSucess());
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
    const bool now =
        befallen.call < 0 && (fate.what == killed || fate.calls.count(number) != 0) && --n == 0;
    befallen.call = now ? number : befallen.call;
    if (now && fate.what == killed) {
      kill(child, SIGKILL);
      EXPECT_EQ(-SIGKILL, EndOf(child));
      return befallen;
    }
    if (now && fate.what == shortened) {
      call.rdx -= call.rdx / 2;
    } else if (now && number != SYS_close) {  // which closes in any case
      call.orig_rax = ~0ULL;
    }
    ptrace(PTRACE_SETREGS, child, nullptr, &call);
    // Or a transcoder that the host starts meanwhile keeps the lock.
    EXPECT_TRUE(number != SYS_openat || (call.rdx & O_CLOEXEC) != 0);
    if (befallen.call < 0) {
      befallen.emptied |= number == SYS_openat && (call.rdx & O_TRUNC) != 0;
      befallen.written |= number == SYS_write;
    }
    EXPECT_TRUE(at_a_call());  // it returns
    if (now && fate.what > 0) {
      ptrace(PTRACE_GETREGS, child, nullptr, &call);
      call.rax = static_cast<unsigned long long>(-fate.what);
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
void BefallEach(const Fate& fate, Begin begin, Body body, Look look) {
  for (int n = 1;; ++n) {
    begin();
    const Befallen befallen = Befall(fate, n, body);
    SCOPED_TRACE("fate " + std::to_string(fate.what) + ", call " + std::to_string(befallen.call));
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

TEST_F(RecordTest, NoCallThatFailsLosesAnEntryWithoutALogLine) {
  for (const Fate& fate : fates) {
    std::set<long> loses;
    for (const int count : {1, 200}) {  // what is written as the file is closed, and before
      const std::string before = Entries(getpid(), count);
      BefallEach(
          fate, [&] { SetText(record, before); }, Transact,
          [&](const Befallen& befallen) {
            const Lines lines = LogLines();
            if (fate.loses.empty()) {
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
            loses.insert(befallen.call);
            // A short record fails as the file is closed, which only the next reader notices.
            EXPECT_TRUE(!lines.empty() || (count == 1 && later == Lines{not_parsed}));
          });
    }
    EXPECT_EQ(fate.loses, loses) << fate.what;
  }
}

TEST_F(RecordTest, AWriteThatFailsSaysSoOrIsFoundAtTheNextRead) {
  for (const Fate& fate : fates) {
    for (const std::size_t size : {1U, 20'000U}) {
      const Json::Value document(std::string(size, 'n'));
      BefallEach(
          fate, [] { SetText(record, "\"old\"\n"); },
          [&] {
            if (!WriteJsonToFile(record, document)) {
              syslog(LOG_ERR, "test.cpp:1 returned false");
            }
          },
          [&](const Befallen&) {
            const Lines lines = LogLines();
            Json::Value root;
            const bool done = ReadJsonFromFile(record, root) && root == document;
            EXPECT_TRUE(done || !fate.loses.empty());
            EXPECT_TRUE(lines == (Lines{not_written, "11 test.cpp:# returned false"}) ||
                        (lines.empty() && (done || size == 1)));
            TakeSyslog();
          });
    }
  }
}

TEST_F(RecordTest, AfterADeathAtAnyCallTheNextTransactionHealsTheRecord) {
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
    BefallEach({killed, {}, {}}, begin, Transact, [&](const Befallen& befallen) {
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

TEST_F(RecordTest, OneSystemCallAtATime) {
  GTEST_SKIP() << "changes the registers of a child, and knows those of x86-64 only";
}

#endif

// ---- a shared /tmp ------------------------------------------------------------------------------

TEST_F(RecordTest, WhatOthersPutInItsPlaceIsRefusedSeenOrFollowed) {
  // Neither root nor the attacker, to whom all in the folder belongs.
  constexpr uid_t service = 65533;
  if (setresuid(service, service, 0) != 0 || setresuid(0, 0, 0) != 0) {
    GTEST_SKIP() << "only one user here";
  }
  const auto attack = [](const std::string& commands) {
    const std::string begin = "cd /tmp; rm -rf Reelhouse; mkdir Reelhouse; cd Reelhouse; ";
    const std::string end = "; chown -hR 65534 /tmp/Reelhouse";
    EXPECT_EQ(0, std::system((begin + commands + end).c_str())) << commands;
  };
  const auto transact = [](uid_t user) {
    InChild([&] {
      EXPECT_EQ(0, setuid(user));
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
    return LogLines();
  };
  const Lines refused = {no_lock, needs_lock, needs_lock, needs_lock, needs_lock, needs_lock};
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
      {"mkfifo enabled", 0, refused, ""},
      {"ln -s /dev/null enabled", 0, refused, ""},
      {"rmdir ../Reelhouse; mkfifo ../Reelhouse", 0, refused, ""},
      {"chmod 700 .", service, refused, ""},
      {place_one + "600 enabled", service, refused, one},
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
}

TEST_F(RecordTest, AForeignHolderIsWaitedFor) {
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
}

}  // namespace
