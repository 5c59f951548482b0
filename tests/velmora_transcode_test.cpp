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
    PlaceFile("/proc/cpuinfo", "cpu cores\t: 4\n");
    Place("/tmp/Reelhouse");
    setenv("LD_PRELOAD", VELMORA_TEST_MACHINE_LIBRARY, 1);
    setenv("VELMORA_TEST_SPEED", "20", 1);  // of the clock: a minute takes three seconds
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

TEST_F(VelmoraTranscodeTest, ChangesTheRecord) {
  const std::string self = std::to_string(getpid());
  const struct {
    std::vector<std::string> arguments;
    std::string output;
    int status;
  } steps[] = {
      {{"add", self}, "", 0},
      {{"remove", self}, "", 0},
      {{"list"}, "nothing is transcoding\n", 0},
      {{"admit", "--hardware"}, "yes\n", 0},
      {{"add", self, "--hardware", "--offline"}, "", 0},
      {{"admit", "--hardware"}, "no\n", 1},
      {{"admit"}, "yes\n", 0},
      {{"run", "--", "no-such-command"}, "", 127},
      {{"run", "--", "/"}, "", 126},
      {{"run", "printf", "%s", "[a]", "--", "--b"}, "[a]----b", 0},
      {{"add", "1"}, "", 0},
      {{"add", "2147483647"}, "", 1},
      {{"list", "--", "true"}, "", 2},
      {{"run", "--"}, "", 2},
      {{"run", "--hardware", "--", "true"}, "", 125},
  };
  for (const auto& step : steps) {
    const Finished finished = Run(step.arguments);
    EXPECT_EQ(step.output, finished.output) << step.arguments[0];
    EXPECT_EQ(step.status, finished.status) << step.arguments[0] << finished.error;
    EXPECT_EQ(step.status != 0 && step.output.empty(), !finished.error.empty());
  }
  const Json::Value list = List();
  ASSERT_EQ(2U, list.size());
  EXPECT_EQ("velmora-transco", list[0]["command"].asString());  // as the kernel cuts it
  EXPECT_TRUE(list[0]["hardware"].asBool() && list[0]["offline"].asBool());
  EXPECT_FALSE(list[1]["hardware"].asBool() || list[1]["offline"].asBool());
  EXPECT_THAT(Run({"list"}).output, HasSubstr(self + "  hardware  yes"));
}

TEST_F(VelmoraTranscodeTest, RunsACommandRegistered) {
  const auto run = [](const std::string& script) {
    return Run({"run", "--hardware", "--", "sh", "-c", script});
  };
  // A second one while the first runs is refused and leaves the first one's entry alone.
  const Finished nested =
      run(program + " run --hardware -- echo started; echo $?; " + program + " list; exit 7");
  EXPECT_THAT(nested.output, testing::MatchesRegex("125\n.*hardware.*"));
  EXPECT_THAT(nested.error, HasSubstr("echo: not started"));
  EXPECT_EQ(7, nested.status);
  EXPECT_EQ(-1, run("kill -9 $$").status);
  EXPECT_TRUE(List().empty());
}

TEST_F(VelmoraTranscodeTest, StatusTellsWhatTheMachineCanDo) {
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
          "--backend", "dnn", "--transcode", "40", nullptr);
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
  if (!VELMORA_HAS_GPU) {
    GTEST_SKIP()
        << "no OpenVINO for the GPU's stand-in, or a sanitizer that it cannot be loaded by";
  }
  Place("/var/packages/Velmora/target/models/openvino_cache");
  setenv("LD_LIBRARY_PATH", VELMORA_STAND_INS, 1);
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
