#include <json/json.h>
#include <reelhouse/trans_loading.h>
#include <sched.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <bitset>
#include <functional>
#include <new>
#include <optional>
#include <random>

#include "support/processes.h"
#include "support/record.h"

namespace fs = std::filesystem;
using namespace LibReelhouse;
using namespace velmora::test;

namespace {

// Which allocation from now on finds no memory; negative for none.
int allocations_left = -1;

}  // namespace

void* operator new(std::size_t size) {
  if (allocations_left >= 0 && allocations_left-- == 0) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

// Not inlined, or the compiler takes the pair for a mistake.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

bool SetPlatform(const std::string& unique) {
  return PlaceFile("/etc.defaults/karvinfo.conf", "unique=" + unique + "\n");
}

/// Begins without a record, on a machine without hardware transcoding.
class TransLoadingTest : public OwnFolderTest {
 protected:
  void SetUp() override {
    OwnFolderTest::SetUp();
    if (!IsSkipped()) {
      fs::remove_all("/tmp/Reelhouse");
      fs::create_directory("/tmp/Reelhouse");
      ASSERT_TRUE(SetPlatform("v_x86"));
    }
  }
};

// The detector reads the machine once in a process. So these two, which set the platform, use it in
// children only, and come before the tests that use it in this process.

TEST_F(TransLoadingTest, AdmitsWithinTheLimitsOfThePlatform) {
  const struct {
    const char* unique;
    int software;  // entries in the record
    int hardware;
    const char* answers;  // software, hardware: may start, and is within the limit
  } cases[] = {
      {"v_x86", 0, 0, "1010"},          {"v_x86", 1, 0, "0000"},
      {"v_x86", 0, 1, "1010"},          {"v_braswell", 0, 0, "1111"},
      {"v_apollolake", 0, 99, "1111"},  {"v_geminilake", 1, 100, "0000"},
      {"v_evansport", 0, 0, "1111"},    {"v_evansport", 1, 0, "0101"},
      {"v_evansport", 0, 1, "1010"},    {"v_monaco", 0, 0, "1101"},
      {"v_monaco", 0, 1, "0000"},       {"v_monaco", 1, 0, "0101"},
      {"v_rtd1296_vb74", 0, 0, "1101"}, {"v_rtd1296_vb74", 0, 1, "0000"},
      {"v_rtd1296_m1", 0, 0, "1000"},   {"v_rtd1296_m1", 0, 1, "0000"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.unique) + " " + std::to_string(row.software + row.hardware));
    ASSERT_TRUE(SetPlatform(row.unique));
    SetText(record, "[]");
    InChild([&] {
      TransLoading transaction;
      for (int i = 0; i < row.software + row.hardware; ++i) {
        transaction.SaveTransPID(getpid(), i >= row.software, false);
      }
      std::string answers;
      for (const bool yes :
           {transaction.TransEnable(false), transaction.TransEnable(true),
            transaction.SoftwareTransEnable(), transaction.HardwareTransEnable()}) {
        answers += yes ? '1' : '0';
      }
      EXPECT_EQ(row.answers, answers);
    });
  }
}

TEST_F(TransLoadingTest, TellsWhatTheMachineCanDo) {
  const char* const tool = "/usr/lib/firmware/rtd1296/factory.bin";
  const char* const marker = "/run/tmp/factory/FACTORY";
  const struct {
    const char* unique;
    const char* tool;     // what it does besides noting its arguments
    const char* answers;  // transcode, remux, hardware, force FFmpeg
    const char* run;
  } cases[] = {
      {"v_x86", "", "1101", ""},
      {"v_braswell", "", "1111", ""},
      {"v_monaco", "", "1110", ""},
      {"v_rtd1296_m1", "", "0101", ""},
      {"v_rtd1296_vb31", "exit 1", "1110", "1:load\n"},
      {"v_rtd1296_vb31", ": > /run/tmp/factory/FACTORY", "0100", "1:load\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.unique) + ", " + row.tool);
    ASSERT_TRUE(SetPlatform(row.unique));
    ASSERT_TRUE(PlaceFile(tool, std::string("#!/bin/sh\necho $#:$1 > /tmp/test/ran\n") + row.tool));
    ASSERT_TRUE(chmod(tool, 0755) == 0 && PlaceFile(marker, "") && fs::remove(marker));
    fs::remove("ran");
    InChild([&] {
      bool can[3] = {false, false, true};
      GetMachineTranscodeAndRemux(can[0], can[1], can[2]);
      std::string answers;
      for (const bool yes : {can[0], can[1], can[2], ForceFFmpegTranscoding()}) {
        answers += yes ? '1' : '0';
      }
      EXPECT_EQ(row.answers, answers);
    });
    EXPECT_EQ(row.run, Text("ran"));
  }
}

TEST_F(TransLoadingTest, ARecordComesToLife) {
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
    EXPECT_EQ("[]\n", Text(record));
  }
  const std::string other = Entry(parent, false, true);
  EXPECT_EQ("[" + Entry(self, true) + "," + other + "," + Entry(self, true) + "]\n", Text(record));
  {
    TransLoading transaction;
    EXPECT_TRUE(transaction.RemoveTransPIDLock(-7));
    EXPECT_TRUE(transaction.IsHardwareTranscoding());
    EXPECT_TRUE(transaction.RemoveTransPIDLock(self));
    EXPECT_FALSE(transaction.IsHardwareTranscoding());
  }
  EXPECT_EQ("[" + other + "]\n", Text(record));
  EXPECT_EQ(Lines(), LogLines());
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
      {"[{},{\"pid\":" + self + "},{\"PID\":\"" + self + "\"},{\"PID\":" + self + ".5}]", "[]", {}},
      {"[{\"PID\":0},{\"PID\":-1},{\"PID\":true},{\"PID\":null},{\"PID\":[" + self + "]}]",
       "[]",
       {}},
      {"[{\"PID\":4294967297},{\"PID\":18446744073709551617},{\"PID\":1e300}]", "[]", {}},
      {"[null,true," + self + ",\"PID\",[\"PID\"],[[]]," + live + "]", "[" + live + "]", {}},
      {live, "[]", {not_loaded}},
      {"true", "[]", {not_loaded}},
      {"[" + live, "[]", {not_parsed, not_loaded}},
      {std::string(1 << 20, '['), "[]", {not_parsed, not_loaded}},
      {"\n", "[]", {not_parsed, not_loaded}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.before.substr(0, 200));
    SetText(record, row.before);
    EXPECT_FALSE(TransLoading().IsHardwareTranscoding());
    EXPECT_EQ(row.after + "\n", Text(record));
    EXPECT_EQ(row.lines, LogLines());
  }
}

TEST_F(TransLoadingTest, WithoutItsLockAnswersNoAndTouchesNothing) {
  for (const bool fifo : {false, true}) {
    ASSERT_EQ(0, fifo ? mkfifo(record.c_str(), 0600) : mkdir(record.c_str(), 0600));
    {
      TransLoading transaction;
      EXPECT_EQ(Lines{no_lock}, LogLines());
      EXPECT_FALSE(transaction.SaveTransPID(getpid(), true, true));
      EXPECT_FALSE(transaction.RemoveTransPIDLock(getpid()));
      EXPECT_FALSE(transaction.IsHardwareTranscoding());
      EXPECT_FALSE(transaction.IsOffineConverting());
      EXPECT_FALSE(transaction.TransEnable(false));
      EXPECT_FALSE(transaction.TransEnable(true));
      EXPECT_EQ(Lines(6, "11 trans_loading.cpp:# TransEnable need to lock file"), LogLines());
      EXPECT_TRUE(transaction.SoftwareTransEnable());
    }
    EXPECT_EQ(0600U, ModeOf(record));
    EXPECT_EQ(Lines(), LogLines());
    fs::remove(record);
  }
}

TEST_F(TransLoadingTest, ThrowsNothingWhenMemoryRunsOut) {
  { const TransLoading makes_the_detector; }
  int failures = 0;
  for (bool failed = true; failed; ++failures) {
    SetText(record, "[" + Entry(getpid(), true) + "]\n");
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

// The record is rewritten in place, so a process that is killed between emptying the file and
// writing it leaves it empty. That, and nothing else, may lose entries; the journal tells when it
// may have happened. What is not atomic is used under the record's lock.
struct Journal {
  static constexpr std::size_t survivors = 8;
  std::bitset<survivors> published;  // survivors that are in the record, as last written
  int dead;                          // a process that had ended before the last transaction began
  int emptied;                       // records found empty
  std::array<int, survivors> pids;
  std::atomic<int> writer;  // who may be writing; 0 when the last one has finished
  std::atomic<int> newest_dead;
  std::array<std::atomic<bool>, 1 << 22> shot;  // by process id, set before the signal is sent
};

constexpr std::size_t a_victim = Journal::survivors;

void Transact(Journal& journal, std::size_t who, bool save) {
  int self = getpid();
  const int dead = journal.newest_dead;
  {
    TransLoading transaction;
    const std::string text = Text(record);
    const auto holds = [&text](int pid) {
      return text.find("{\"PID\":" + std::to_string(pid) + ",") != std::string::npos;
    };
    if (text.empty() && journal.shot[static_cast<std::size_t>(journal.writer)]) {
      journal.published.reset();
      ++journal.emptied;
    } else {
      Json::Value root;
      EXPECT_TRUE(Json::Reader().parse(text, root) && root.isArray()) << text;
      EXPECT_FALSE(holds(journal.dead)) << text;
      for (std::size_t i = 0; i < Journal::survivors; ++i) {
        EXPECT_EQ(journal.published[i], holds(journal.pids[i])) << i << text;
      }
    }
    journal.writer = self;
    journal.dead = dead;
    save ? transaction.SaveTransPID(self, true, false) : transaction.RemoveTransPIDLock(self);
    if (who != a_victim) {
      journal.published[who] = save;
    }
  }
  journal.writer.compare_exchange_strong(self, 0);
}

TEST_F(TransLoadingTest, LosesNothingUnderFire) {
  Journal& journal = *static_cast<Journal*>(
      mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, &journal);
  { const TransLoading makes_the_record; }
  std::vector<pid_t> survivors;
  for (std::size_t i = 0; i < Journal::survivors; ++i) {
    survivors.push_back(StartChild([&journal, i] {
      journal.pids[i] = getpid();
      for (int n = 0; n <= 500; ++n) {
        Transact(journal, i, n % 2 == 0);
      }
    }));
  }
  // As many victims at any moment; one that is shot is replaced. The survivors stay, as zombies.
  std::array<pid_t, Journal::survivors> victims = {};
  std::mt19937 random(std::random_device{}());
  int shot = 0;
  const auto shoot = [&](pid_t victim) {
    journal.shot[static_cast<std::size_t>(victim)] = true;
    kill(victim, SIGKILL);
    EXPECT_EQ(-SIGKILL, EndOf(victim));
    journal.newest_dead = victim;
    ++shot;
  };
  for (std::size_t ended = 0; ended < survivors.size();) {
    pid_t& victim = victims[random() % victims.size()];
    if (victim != 0) {
      shoot(victim);
    }
    victim = StartChild([&journal] {
      for (bool save = true; !HasFailure(); save = !save) {
        Transact(journal, a_victim, save);
      }
    });
    usleep(static_cast<useconds_t>(random() % 3000));
    for (const std::string& line : LogLines()) {
      EXPECT_EQ(not_parsed, line);  // an empty record
    }
    ended = 0;
    for (const pid_t survivor : survivors) {
      siginfo_t info = {};
      waitid(P_PID, static_cast<id_t>(survivor), &info, WEXITED | WNOHANG | WNOWAIT);
      ended += info.si_pid == survivor ? 1 : 0;
    }
  }
  for (const pid_t victim : victims) {
    if (victim != 0) {
      shoot(victim);
    }
  }
  EXPECT_GE(shot, 2 * static_cast<int>(Journal::survivors));
  std::printf("%d processes shot, %d records emptied by it\n", shot, journal.emptied);

  Transact(journal, a_victim, false);  // looks once more, and drops the dead
  Json::Value root;
  EXPECT_TRUE(Json::Reader().parse(Text(record), root));
  EXPECT_EQ(journal.published.count(), root.size());
  for (const pid_t survivor : survivors) {
    EXPECT_EQ(0, EndOf(survivor));
  }
  { const TransLoading transaction; }
  EXPECT_EQ("[]\n", Text(record));
}

}  // namespace
