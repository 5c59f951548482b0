// `velmora-transcode`, and the evening of `velmora-model bench --transcode`, as their users run
// them.
#include <gmock/gmock.h>
#include <json/json.h>

#include "support/processes.h"
#include "support/subprocess.h"

namespace {

using namespace velmora::test;
using testing::HasSubstr;

const std::string program = VELMORA_TRANSCODE_PROGRAM;

class VelmoraTranscodeTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    PlaceFile("/etc.defaults/karvinfo.conf", "unique=\"vendor_evansport_m1\"\n");
    Place("/tmp/Reelhouse");
    setenv("LD_PRELOAD", VELMORA_TEST_MACHINE_LIBRARY, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    setenv("VELMORA_TEST_SPEED", "30", 1);  // of the clock: a minute takes two seconds
  }

  static Finished Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program);
    return RunProcess(arguments);
  }

  static Finished Bench(const char* backend, const char* seconds) {
    return RunProcess({VELMORA_MODEL_PROGRAM, "bench", VELMORA_SAMPLE_MODEL "/model.json", "--json",
                       "--backend", backend, "--transcode", seconds});
  }

  static Json::Value Parse(const Finished& finished) {
    EXPECT_EQ(0, finished.status) << finished.error;
    Json::Value document;
    std::istringstream(finished.output) >> document;
    return document;
  }

  static Json::Value List() { return Parse(Run({"list", "--json"})); }
};

TEST_F(VelmoraTranscodeTest, LooksAtTheRecordAndChangesIt) {
  const std::string self = std::to_string(getpid());
  const std::string second = program + " run --hardware -- echo started; echo $?; " + program +
                             " list | grep -c hardware; exit 7";
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string output;
    std::string error;  // a part of it
  } steps[] = {
      {{"add", self}, 0, "", ""},
      {{"add", "2147483647"}, 1, "", "2147483647: no such process\n"},
      {{"remove", self}, 0, "", ""},
      {{"list", "--", "true"}, 2, "", "only run takes a command"},
      {{"run", "--"}, 2, "", "COMMAND is required"},
      {{"run", "--", "/no/such/command"}, 127, "", "/no/such/command: No such file"},
      {{"run", "--", "/"}, 126, "", "/: Permission denied"},
      {{"run", "printf", "%s", "[a]", "--", "--b"}, 0, "[a]----b", ""},
      // The entry is the command's own, however that ends; another's refusal leaves it alone.
      {{"run", "--hardware", "--", "sh", "-c", "kill -9 $$"}, -1, "", ""},
      {{"run", "--hardware", "--", "sh", "-c", second}, 7, "125\n1\n", "echo: not started"},
      {{"list"}, 0, "nothing is transcoding\n", ""},
      {{"admit", "--hardware"}, 0, "yes\n", ""},
      {{"add", self, "--hardware", "--offline"}, 0, "", ""},
      {{"admit", "--hardware"}, 1, "no\n", ""},
      {{"admit"}, 0, "yes\n", ""},
      {{"add", "1"}, 0, "", ""},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(testing::PrintToString(step.arguments));
    const Finished finished = Run(step.arguments);
    EXPECT_EQ(step.status, finished.status);
    EXPECT_EQ(step.output, finished.output);
    EXPECT_THAT(finished.error, HasSubstr(step.error));
    EXPECT_EQ(step.error.empty(), finished.error.empty());
  }
  const Json::Value list = List();
  ASSERT_EQ(2U, list.size());
  EXPECT_EQ("velmora-transco", list[0]["command"].asString());  // as the kernel cuts it
  EXPECT_TRUE(list[0]["hardware"].asBool() && list[0]["offline"].asBool());
  EXPECT_FALSE(list[1]["hardware"].asBool() || list[1]["offline"].asBool());
  EXPECT_THAT(Run({"list"}).output, HasSubstr(self + "  hardware  yes"));
}

TEST_F(VelmoraTranscodeTest, StatusTellsWhatTheMachineCanDo) {
  PlaceFile("/proc/cpuinfo", "cpu cores\t: 4\n");
  const Json::Value status = Parse(Run({"status", "--json"}));
  EXPECT_EQ("evansport", status["platform"].asString());
  EXPECT_EQ("evansport_2", status["transcoder_name"].asString());
  EXPECT_TRUE(status["capabilities"]["hardware_transcode"].asBool());
  EXPECT_EQ(1, status["limits"]["hardware"].asInt());

  std::filesystem::remove_all(Place("/tmp/Reelhouse"));
  PlaceFile("/tmp/Reelhouse", "in the folder's place");
  const Finished unlocked = Run({"status"});
  EXPECT_EQ(1, unlocked.status);
  EXPECT_THAT(unlocked.error, HasSubstr("cannot be locked"));
  EXPECT_THAT(unlocked.output, testing::StartsWith("platform      evansport\n"));
  EXPECT_THAT(Bench("dnn", "1").error, HasSubstr("the transcode could not be registered"));
}

TEST_F(VelmoraTranscodeTest, WhatABenchRegistersDiesWithIt) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // a process that nobody waits for is still one
  const pid_t bench = StartChild([] {
    execl(VELMORA_MODEL_PROGRAM, "velmora-model", "bench", VELMORA_SAMPLE_MODEL "/model.json",
          "--backend", "dnn", "--transcode", "60", nullptr);
  });
  while (List().empty()) {
    ASSERT_EQ(0, waitpid(bench, nullptr, WNOHANG));
    usleep(100'000);
  }
  kill(bench, SIGKILL);
  while (wait(nullptr) > 0) {
  }
  EXPECT_TRUE(List().empty());
}

TEST_F(VelmoraTranscodeTest, ABenchLosesNoRequestWhileTheGpuGoesAndComesBack) {
  if (!VELMORA_HAS_GPU || VELMORA_IS_SANITIZED) {
    GTEST_SKIP()
        << "no OpenVINO for the GPU's stand-in, or a sanitizer that it cannot be loaded by";
  }
  Place("/var/packages/Velmora/target/models/openvino_cache");
  setenv("VELMORA_TEST_PLATFORM", "ie gpu", 1);
  const Json::Value evening = Parse(Bench("ie", "10"));
  EXPECT_EQ(0, evening["lost"].asInt());
  std::string phases;
  for (const Json::Value& phase : evening["phases"]) {
    phases += phase["phase"].asString() + ": " + phase["devices"].asString() + "\n";
  }
  EXPECT_EQ("before: GPU\ntranscoding: CPU\nquiet: CPU, then GPU\nafter: GPU\n", phases);
  const Json::Value& quiet = evening["phases"][2]["requests"];
  EXPECT_GE(quiet[quiet.size() - 1]["s"].asDouble() - quiet[0]["s"].asDouble(), 59);
}

}  // namespace
