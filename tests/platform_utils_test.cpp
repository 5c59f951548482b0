// The platform detector, and what it decides about transcoding.
#include <dlfcn.h>
#include <karvcore/karvcore.h>
#include <karvsdk/karvsdk.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>

#include "support/processes.h"

namespace fs = std::filesystem;
using librh::util::PlatformUtils;
using namespace velmora::test;

namespace {

Lines asked;         // of the appliance's libraries, each question with its arguments
bool fails = false;  // the one for values, and leaves something in the buffer

template <typename... Arguments>
void Note(const char* name, Arguments... arguments) {
  std::ostringstream line;
  line << name;
  ((line << ' ' << arguments), ...);
  asked.push_back(line.str());
}

/// The operation of the library behind this program.
template <typename Operation>
Operation* Next(Operation*, const char* name) {
  return reinterpret_cast<Operation*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the libraries' own, and pass the question on.
int KLIBCProcAlive(int pid) {
  Note("alive", pid);
  return Next(KLIBCProcAlive, "KLIBCProcAlive")(pid);
}

int KLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int flags) {
  Note("value", file, key, size, flags);
  const int result =
      Next(KLIBCFileGetKeyValue, "KLIBCFileGetKeyValue")(file, key, buffer, size, flags);
  return fails ? -1 : result;
}

int KARVFSMkdirP(const char* path, int a, int b, unsigned c, unsigned d, unsigned mode) {
  Note("folder", path, a, b, c, d, mode);
  return Next(KARVFSMkdirP, "KARVFSMkdirP")(path, a, b, c, d, mode);
}

namespace {

constexpr const char* kRecord = "/tmp/Reelhouse/enabled";

// Only children touch the detector: it reads the machine once in a process.
class PlatformUtilsTest : public MachineTest {};

/// The predicates that hold, in the class's order.
std::string Predicates() {
  using P = PlatformUtils;
  constexpr std::pair<const char*, bool (P::*)()> predicates[] = {
      {"Evansport", &P::IsEvansport},
      {"Braswell", &P::IsBraswell},
      {"Monaco", &P::IsMonaco},
      {"ApolloLake", &P::IsApolloLake},
      {"GeminiLake", &P::IsGeminiLake},
      {"Vaapi", &P::IsSupportVaapi},
      {"RTD1296", &P::IsRTD1296},
      {"OMX", &P::IsSupportOMX},
      {"Hardware", &P::IsSupportHWTranscode},
      {"Gstreamer", &P::IsSupportGstreamer},
      {"Alpine", &P::IsAlpine},
      {"Avoton", &P::IsAvotonProfile},
      {"FFmpeg2", &P::IsFFmpeg2},
      {"Setting", &P::IsHWSettingEnabled},
      {"VaapiFFmpeg", &P::IsVaapiFFmpegEnabled}};
  std::string text;
  for (const auto& [name, predicate] : predicates) {
    text += (P::GetInst()->*predicate)() ? std::string(text.empty() ? "" : " ") + name : "";
  }
  return text;
}

/// How many transcodes are admitted beside an entry of neither kind.
int Admitted(bool hardware) {
  SetText(Place(kRecord), "[{\"PID\":" + std::to_string(getpid()) + "}]");
  LibReelhouse::TransLoading transaction;
  int count = 0;
  for (; transaction.TransEnable(hardware) && count < 200; ++count) {
    transaction.SaveTransPID(getpid(), hardware, false);
  }
  return count;
}

struct Machine {
  const char* unique = nullptr;  // of the configuration; null: there is none
  const char* cores = "4";
  const char* transcoder = "x86_1";
  const char* predicates = "";
  int software = 1;  // transcodes that are admitted beside an entry
  int hardware = 0;
  const char* settings = nullptr;     // the user's; null: there are none
  const char* factory_tool = "true";  // what the factory's tool does besides noting its arguments
  bool transcodes = true;
};

constexpr const char* kOff = R"({"hardware_transcode": false})";
constexpr const char* kOmx = "RTD1296 OMX Hardware Gstreamer FFmpeg2 Setting";

const Machine kMachines[] = {
    {},
    {"braswell"},
    {"v_Braswell_m1"},
    {"_cedarview", "2", "cedarview_2"},
    {"v_bromolow_m1", "", "bromolow_1"},
    {"v_alpine_m1", "1", "cedarview_2", "Alpine"},
    {"v_alpine4k_m1", "1", "cedarview_2", "Alpine"},
    {"v_xalpinex_m1", "1", "cedarview_2"},
    {"v_kvmx64_m1", "1", "cedarview_2"},
    {"v_avoton_m1", "4", "avoton_2", "Avoton"},
    {"v_broadwellnk_m1", "1", "avoton_1", "Avoton"},
    {"v_grantley_m1", "x", "avoton_1", "Avoton"},
    {"v_xbroadwell_m1", "4"},
    {"v_braswell_m1", "4", "braswell_2", "Braswell Vaapi Hardware Setting VaapiFFmpeg", 1, 100},
    {"v_braswell_m1", "4", "braswell_2", "Braswell Vaapi Hardware Setting VaapiFFmpeg", 1, 100,
     R"([{"hardware_transcode": false}])"},
    {"v_apollolake_m1", "1", "braswell_1", "ApolloLake Vaapi Hardware", 1, 100, kOff},
    {"v_geminilake_m1", "1", "braswell_1", "GeminiLake Vaapi Hardware Setting VaapiFFmpeg", 1, 100,
     R"({"hardware_transcode": "false"})"},
    {"v_evansport_m1", "2", "evansport_2", "Evansport Hardware FFmpeg2 Setting", 1, 1, "{}"},
    {"v_evansport_m1", "2", "x86_1", "Evansport Hardware FFmpeg2", 1, 1, kOff},
    {"v_monaco_m1", "1", "monaco_2", "Monaco Hardware Gstreamer FFmpeg2 Setting", 0, 1, kOff},
    {"v_rtd1296_vb31", "1", "monaco_2", kOmx, 0, 1, kOff},
    {"v_rtd1296_vb52", "1", "monaco_2", kOmx, 0, 1, kOff},
    {"v_rtd1296_vb52s", "1", "monaco_2", kOmx, 0, 1, kOff},
    {"v_rtd1296_vb74_more", "1", "monaco_2", kOmx, 0, 1, kOff},
    {"v_rtd1296_qb9", "1", "monaco_2", kOmx, 0, 1, kOff, "exit 1"},
    {"v_rtd1296_qb9", "1", "monaco_2", kOmx, 0, 1, kOff,
     "touch ../../../../run/tmp/factory/FACTORY", false},
    {"v_rtd1296_qb91", "1", "monaco_2", "RTD1296 FFmpeg2", 0, 0, nullptr, "", false},
};

TEST_F(PlatformUtilsTest, KnowsEveryPlatform) {
  for (const Machine& machine : kMachines) {
    SCOPED_TRACE(testing::Message() << machine.unique << " " << machine.settings);
    NewMachine();
    if (machine.unique != nullptr) {
      PlaceFile("/etc.defaults/karvinfo.conf", std::string("unique=") + machine.unique);
    }
    if (machine.settings != nullptr) {
      PlaceFile("/var/packages/Reelhouse/etc/advanced.conf", machine.settings);
    }
    PlaceFile("/proc/cpuinfo", std::string("cpu cores\t: ") + machine.cores);
    Place("/run/tmp/factory/FACTORY");
    Place(kRecord);
    const std::string tool = PlaceFile(
        "/usr/lib/firmware/rtd1296/factory.bin",
        std::string("#!/bin/sh\necho $#:$1 > ran; cd ${0%/*}\n") + machine.factory_tool + "\n");
    chmod(tool.c_str(), 0755);
    InChild([&] {
      PlatformUtils& platform = *PlatformUtils::GetInst();
      EXPECT_EQ(machine.transcoder, platform.GetTransPlatformName());
      EXPECT_EQ(machine.predicates, Predicates());
      EXPECT_EQ("", platform.GetFFmpegPath() + platform.GetGstreamerPath());
      EXPECT_EQ(!platform.IsMonaco() && !platform.IsSupportOMX(),
                LibReelhouse::ForceFFmpegTranscoding());
      bool transcode = !machine.transcodes;
      bool remux = false;
      bool hardware = machine.hardware == 0;
      LibReelhouse::GetMachineTranscodeAndRemux(transcode, remux, hardware);
      EXPECT_EQ(machine.transcodes, transcode);
      EXPECT_TRUE(remux);
      EXPECT_EQ(machine.transcodes && machine.hardware > 0, hardware);
      EXPECT_EQ(platform.IsSupportOMX() ? "1:load\n" : "", Text("ran"));

      EXPECT_EQ(machine.software, Admitted(false));
      EXPECT_EQ(machine.hardware, Admitted(true));
      SetText(Place(kRecord), "[]");  // an idle machine takes one of what it can do
      LibReelhouse::TransLoading idle;
      EXPECT_TRUE(idle.TransEnable(false));
      EXPECT_EQ(machine.hardware > 0, idle.TransEnable(true));
    });
  }
}

TEST_F(PlatformUtilsTest, AsksTheAppliancesLibrariesAsTheyExpectIt) {
  InChild([] {
    asked.clear();
    { const LibReelhouse::TransLoading first; }
    EXPECT_EQ((Lines{"folder /tmp/Reelhouse 0 1 1024 100 493",
                     "value /etc.defaults/karvinfo.conf unique 256 0"}),
              asked);
    // Once about each process, also when one in the middle is dead.
    SetText(Place(kRecord), R"([{"PID":1},{"PID":2147483647},{"PID":"1"},{"PID":2}])");
    asked.clear();
    { const LibReelhouse::TransLoading second; }
    EXPECT_EQ((Lines{"alive 1", "alive 2147483647", "alive 2"}), asked);
  });
}

TEST_F(PlatformUtilsTest, DoesNotKnowAMachineThatCannotBeAsked) {
  PlaceFile("/etc.defaults/karvinfo.conf", "unique=v_braswell_m1");
  EXPECT_EQ("braswell", PlatformUtils().GetPlatform());
  fails = true;
  EXPECT_EQ("", PlatformUtils().GetPlatform());
  fails = false;
}

TEST_F(PlatformUtilsTest, ReadsTheFilesOfProcLineByLine) {
  const std::string information = PlaceFile(
      "/proc/cpuinfo", "model name\t: with: two\nmodel name\t: first\nmodel\t: second\nempty:\n");
  close(STDIN_FILENO);  // as of many services: the file gets descriptor 0
  PlatformUtils& machine = *PlatformUtils::GetInst();
  EXPECT_EQ(" first", machine.GetCPUInfo("model"));
  EXPECT_EQ(" first", machine.GetCPUInfo("name"));
  EXPECT_EQ("", machine.GetCPUInfo("empty"));
  EXPECT_EQ("", machine.GetCPUInfo("missing"));
  EXPECT_EQ("", machine.GetCPUInfo(""));
  EXPECT_EQ(Lines{"3 platform_utils.cpp: Bad parameter"}, LogLines());
  fs::remove(information);
  EXPECT_EQ("", machine.GetCPUInfo("cpu cores"));
  EXPECT_EQ(Lines{"3 platform_utils.cpp: Failed to open file [/proc/cpuinfo]"}, LogLines());
  EXPECT_EQ("", machine.GetHostPlatformName());
  PlaceFile("/proc/karv_platform", " name \t\r\nsecond\n");
  EXPECT_EQ(" name \t\r", machine.GetHostPlatformName());
}

}  // namespace
