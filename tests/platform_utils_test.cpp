// The platform detector, and the appliance's system libraries as they are built here.
#include <dlfcn.h>
#include <karvcore/karvcore.h>
#include <karvsdk/karvsdk.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <climits>
#include <thread>

#include "support/own_folder.h"

namespace fs = std::filesystem;
using librh::util::PlatformUtils;
using namespace velmora::test;

namespace {

Lines asked;  // of the appliance's libraries, each question with its arguments

template <typename... Arguments>
int Ask(const char* name, Arguments... arguments) {
  std::ostringstream line;
  line << name;
  ((line << ' ' << arguments), ...);
  asked.push_back(line.str());
  return 0;
}

/// The operation of the library behind this program.
template <typename Operation>
Operation* Next(Operation*, const char* name) {
  return reinterpret_cast<Operation*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the libraries' own, and pass the question on.
int KLIBCProcAlive(int pid) {
  Ask("alive", pid);
  return Next(KLIBCProcAlive, "KLIBCProcAlive")(pid);
}

int KLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int flags) {
  Ask("value", file, key, size, flags);
  return Next(KLIBCFileGetKeyValue, "KLIBCFileGetKeyValue")(file, key, buffer, size, flags);
}

int KARVFSMkdirP(const char* path, int a, int b, unsigned c, unsigned d, unsigned mode) {
  Ask("folder", path, a, b, c, d, mode);
  return Next(KARVFSMkdirP, "KARVFSMkdirP")(path, a, b, c, d, mode);
}

namespace {

// Only children touch the detector: it reads the machine once in a process.
class PlatformUtilsTest : public OwnFolderTest {};

/// The transcoder's name; a letter for every predicate that holds, in the class's order; a letter
/// for each of transcode, remux, hardware and FFmpeg by force.
std::string Answers() {
  using P = PlatformUtils;
  bool (P::*const predicates[])() = {
      &P::IsEvansport,        &P::IsBraswell,         &P::IsMonaco,
      &P::IsApolloLake,       &P::IsGeminiLake,       &P::IsSupportVaapi,
      &P::IsRTD1296,          &P::IsSupportOMX,       &P::IsSupportHWTranscode,
      &P::IsSupportGstreamer, &P::IsAlpine,           &P::IsAvotonProfile,
      &P::IsFFmpeg2,          &P::IsHWSettingEnabled, &P::IsVaapiFFmpegEnabled};
  P& machine = *P::GetInst();
  std::vector<bool> answers;
  for (const auto predicate : predicates) {
    answers.push_back((machine.*predicate)());
  }
  bool can[3] = {false, false, true};
  LibReelhouse::GetMachineTranscodeAndRemux(can[0], can[1], can[2]);
  answers.insert(answers.end(), {can[0], can[1], can[2], LibReelhouse::ForceFFmpegTranscoding()});
  std::string text = machine.GetTransPlatformName() + " ";
  for (std::size_t i = 0; i < answers.size(); ++i) {
    text += answers[i] ? std::string(1, "ebmagVrOHGlv2SFtxhf"[i]) : "";
  }
  return text + machine.GetFFmpegPath() + machine.GetGstreamerPath();
}

/// Whether an idle machine admits a transcode by software, and with hardware; then how many of each
/// it admits beside an entry of neither kind.
std::string Limits() {
  SetText("/tmp/Reelhouse/enabled", "[]");
  LibReelhouse::TransLoading transaction;
  std::string text;
  for (const bool hardware : {false, true}) {
    text += transaction.TransEnable(hardware) ? "+" : "-";
  }
  SetText("/tmp/Reelhouse/enabled", "[{\"PID\":" + std::to_string(getpid()) + "}]");
  transaction.ReadAndCheckAlive();
  for (const bool hardware : {false, true}) {
    int count = 0;
    for (; transaction.TransEnable(hardware) && count < 200; ++count) {
      transaction.SaveTransPID(getpid(), hardware, false);
    }
    text += " " + std::to_string(count);
  }
  return text;
}

TEST_F(PlatformUtilsTest, KnowsEveryPlatform) {
  const char* const off = R"({"hardware_transcode": false})";
  const struct {
    const char* unique;    // null: no such file
    const char* cores;     // as in "/proc/cpuinfo"
    const char* settings;  // null: no such file
    const char* answers;
    const char* limits = "+- 1 0";
    const char* tool = "";  // what the factory's tool does besides noting its arguments
  } cases[] = {
      {nullptr, "4", nullptr, "x86_1 txf"},
      {"braswell", "4", nullptr, "x86_1 txf"},
      {"v__braswell", "4", nullptr, "x86_1 txf"},
      {"v_Braswell_m1", "4", nullptr, "x86_1 txf"},
      {"_cedarview", "2", nullptr, "cedarview_2 txf"},
      {"v_bromolow_m1", "", nullptr, "bromolow_1 txf"},
      {"v_alpine_m1", "1", nullptr, "cedarview_2 ltxf"},
      {"v_alpine4k_m1", "1", nullptr, "cedarview_2 ltxf"},
      {"v_xalpinex_m1", "1", nullptr, "cedarview_2 txf"},
      {"v_kvmx64_m1", "1", nullptr, "cedarview_2 txf"},
      {"v_avoton_m1", "4", nullptr, "avoton_2 vtxf"},
      {"v_broadwellnk_m1", "1", nullptr, "avoton_1 vtxf"},
      {"v_grantley_m1", "x", nullptr, "avoton_1 vtxf"},
      {"v_xbroadwell_m1", "4", nullptr, "x86_1 txf"},
      {"v_braswell_m1", "4", nullptr, "braswell_2 bVHSFtxhf", "++ 1 100"},
      {"v_braswell_m1", "4", R"([{"hardware_transcode": false}])", "braswell_2 bVHSFtxhf",
       "++ 1 100"},
      {"v_apollolake_m1", "1", off, "braswell_1 aVHtxhf", "++ 1 100"},
      {"v_geminilake_m1", "1", R"({"hardware_transcode": "false"})", "braswell_1 gVHSFtxhf",
       "++ 1 100"},
      {"v_evansport_m1", "2", "{}", "evansport_2 eH2Stxhf", "++ 1 1"},
      {"v_evansport_m1", "2", off, "x86_1 eH2txhf", "++ 1 1"},
      {"v_monaco_m1", "1", off, "monaco_2 mHG2Stxh", "++ 0 1"},
      {"v_rtd1296_vb31", "1", off, "monaco_2 rOHG2Stxh", "++ 0 1"},
      {"v_rtd1296_vb52", "1", off, "monaco_2 rOHG2Stxh", "++ 0 1"},
      {"v_rtd1296_vb52s", "1", off, "monaco_2 rOHG2Stxh", "++ 0 1"},
      {"v_rtd1296_vb74_more", "1", off, "monaco_2 rOHG2Stxh", "++ 0 1"},
      {"v_rtd1296_qb9", "1", off, "monaco_2 rOHG2Stxh", "++ 0 1", "exit 1"},
      {"v_rtd1296_qb9", "1", off, "monaco_2 rOHG2Sx", "++ 0 1", ": > /run/tmp/factory/FACTORY"},
      {"v_rtd1296_qb91", "1", nullptr, "monaco_2 r2xf", "+- 0 0"},
  };
  const auto place = [](const char* path, const char* text, const std::string& before = "") {
    ASSERT_TRUE(PlaceFile(path, before + (text == nullptr ? "" : text) + "\n"));
    if (text == nullptr) {
      fs::remove(path);
    }
  };
  const char* const tool = "/usr/lib/firmware/rtd1296/factory.bin";
  const std::string notes = "#!/bin/sh\necho $#:$1 > /tmp/test/ran\n";
  fs::create_directory("/tmp/Reelhouse");
  for (const auto& row : cases) {
    SCOPED_TRACE(row.answers);
    place("/etc.defaults/karvinfo.conf", row.unique, "unique=");
    place("/var/packages/Reelhouse/etc/advanced.conf", row.settings);
    place("/proc/cpuinfo", row.cores, "cpu cores\t: ");
    place("/run/tmp/factory/FACTORY", nullptr);
    place(tool, row.tool, notes);
    chmod(tool, 0755);
    fs::remove("ran");
    InChild([&] {
      EXPECT_EQ(row.answers, Answers());
      EXPECT_EQ(row.limits, Limits());
      EXPECT_EQ(PlatformUtils::GetInst()->IsSupportOMX() ? "1:load\n" : "", Text("ran"));
    });
  }
}

TEST_F(PlatformUtilsTest, AsksTheAppliancesLibrariesAsTheyExpectIt) {
  fs::remove_all("/tmp/Reelhouse");
  InChild([] {
    asked.clear();
    { const LibReelhouse::TransLoading first; }
    EXPECT_EQ((Lines{"folder /tmp/Reelhouse 0 1 1024 100 493",
                     "value /etc.defaults/karvinfo.conf unique 256 0"}),
              asked);
    // Once about each process, also when one in the middle is dead.
    SetText("/tmp/Reelhouse/enabled", R"([{"PID":1},{"PID":2147483647},{"PID":"1"},{"PID":2}])");
    asked.clear();
    { const LibReelhouse::TransLoading second; }
    EXPECT_EQ((Lines{"alive 1", "alive 2147483647", "alive 2"}), asked);
  });
}

TEST_F(PlatformUtilsTest, ReadsTheFilesOfProcLineByLine) {
  ASSERT_TRUE(PlaceFile("/proc/cpuinfo",
                        "model name\t: with: two\nmodel name\t: first\nmodel\t: second\nempty:\n"));
  InChild([] {
    PlatformUtils& machine = *PlatformUtils::GetInst();
    EXPECT_EQ(" first", machine.GetCPUInfo("model"));
    EXPECT_EQ(" first", machine.GetCPUInfo("name"));
    EXPECT_EQ("", machine.GetCPUInfo("empty"));
    EXPECT_EQ("", machine.GetCPUInfo(""));
    EXPECT_EQ(Lines{"11 platform_utils.cpp:# Bad parameter"}, LogLines());

    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount("none", "/proc", "tmpfs", 0, nullptr));
    EXPECT_EQ("", machine.GetCPUInfo("cpu cores"));
    EXPECT_EQ("", machine.GetHostPlatformName());
    EXPECT_EQ(Lines{"11 platform_utils.cpp:# Failed to open file [/proc/cpuinfo]"}, LogLines());
    SetText("/proc/karv_platform", " name \t\r\nsecond\n");
    EXPECT_EQ(" name \t\r", machine.GetHostPlatformName());
  });
}

class KarvTest : public OwnFolderTest {};

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
      {"key=\"open\n", 256, 6, "\"open"},
      {"key=01234567\n", 9, 9, "01234567"},
      {"key=01234567\n", 8, 8, "0123456"},
      {"key=01234567\n", 0, -1, "before"},
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
  EXPECT_EQ(-1, KLIBCFileGetKeyValue("/tmp", "key", buffer, 256, 0));
}

TEST_F(KarvTest, KnowsWhichProcessesExist) {
  EXPECT_NE(0, KLIBCProcAlive(getpid()));
  for (const int id : {0, -1, -getpgrp(), INT_MIN, INT_MAX}) {
    EXPECT_EQ(0, KLIBCProcAlive(id)) << id;
  }
  std::thread([] { EXPECT_EQ(0, KLIBCProcAlive(gettid())); }).join();
  const pid_t zombie = StartChild([] {});
  siginfo_t ended;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT));
  EXPECT_NE(0, KLIBCProcAlive(zombie));
  EndOf(zombie);
  EXPECT_EQ(0, KLIBCProcAlive(zombie));
  InChild([] {
    SomeoneElse();
    EXPECT_EQ(-1, kill(getppid(), 0));
    EXPECT_NE(0, KLIBCProcAlive(getppid()));
  });
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
  chmod("there", 0711);
  chmod(".", 0777);
  const struct {
    const char* path;
    unsigned mode;
    int error;         // 0 for success
    const char* made;  // and `mode` holds for it
  } cases[] = {
      {"/tmp/test/a/b/c", 0755, 0, "a"}, {"d//e/./f/", 0700, 0, "d/e/f"},
      {"closed/g", 0500, 0, "closed"},   {"there", 0755, 0, nullptr},
      {"file", 0755, ENOTDIR, nullptr},  {"file/x", 0755, ENOTDIR, nullptr},
      {"", 0755, ENOENT, nullptr},
  };
  InChild([&] {
    SomeoneElse();  // whom closed directories stop
    umask(077);
    for (const auto& row : cases) {
      SCOPED_TRACE(row.path);
      errno = 0;
      EXPECT_EQ(row.error == 0 ? 0 : -1, KARVFSMkdirP(row.path, 0, 1, 1024, 100, row.mode));
      EXPECT_EQ(row.error, errno);
      EXPECT_TRUE(row.made == nullptr || ModeOf(row.made) == row.mode);
    }
  });
  EXPECT_EQ(0711U, ModeOf("there"));
}

}  // namespace
