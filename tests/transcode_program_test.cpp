// `velmora-transcode`, and the evening of `velmora-model bench`, on the real record of a machine of
// the test's own.
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/own_namespace.h"
#include "support/subprocess.h"

namespace {

using velmora::test::PlaceFile;

class TranscodeProgram : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    ASSERT_TRUE(PlaceFile("/etc.defaults/karvinfo.conf", "unique=\"vendor_evansport_m1\"\n"));
    ASSERT_TRUE(PlaceFile("/proc/cpuinfo", "cpu cores\t: 4\n"));
  }

  static Finished Run(std::vector<std::string> arguments,
                      const char* program = VELMORA_TRANSCODE_PROGRAM) {
    arguments.insert(arguments.begin(), program);
    velmora::test::TakeSyslog();
    return RunProcess(arguments);
  }

  static Json::Value Parse(const Finished& finished) {
    EXPECT_EQ(finished.status, 0) << finished.error;
    Json::Value document;
    std::istringstream(finished.output) >> document;
    return document;
  }

  static Json::Value List() { return Parse(Run({"list", "--json"})); }
};

TEST_F(TranscodeProgram, ChangesTheRecord) {
  const std::string self = std::to_string(getpid());
  EXPECT_EQ(Run({"admit", "--hardware"}).output, "yes\n");
  EXPECT_EQ(Run({"add", self, "--hardware", "--offline"}).status, 0);
  const Finished refused = Run({"admit", "--hardware"});
  EXPECT_EQ(refused.output, "no\n");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(Run({"admit"}).output, "yes\n");

  const Json::Value list = List();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["pid"].asInt(), getpid());
  EXPECT_EQ(list[0]["command"].asString(), "transcode-progr");  // as the kernel cuts it
  EXPECT_TRUE(list[0]["hardware"].asBool() && list[0]["offline"].asBool());
  EXPECT_NE(Run({"list"}).output.find(self + "  hardware  yes"), std::string::npos);

  EXPECT_EQ(Run({"remove", self}).status, 0);
  EXPECT_EQ(List(), Json::Value(Json::arrayValue));
  const Finished nobody = Run({"add", "2147483647"});
  EXPECT_EQ(nobody.status, 1);
  EXPECT_EQ(nobody.error, "velmora-transcode: 2147483647: no such process\n");
}

TEST_F(TranscodeProgram, RunsACommandRegistered) {
  const std::string program = VELMORA_TRANSCODE_PROGRAM;
  const auto run = [](const std::string& script) {
    return Run({"run", "--hardware", "--", "sh", "-c", script});
  };
  // A second one while the first runs is refused and leaves the first one's entry alone.
  const Finished nested =
      run(program + " run --hardware -- echo started; echo $?; " + program + " list; exit 7");
  EXPECT_TRUE(nested.output.starts_with("125\n")) << nested.output;
  EXPECT_NE(nested.output.find("hardware"), std::string::npos) << nested.output;
  EXPECT_NE(nested.error.find("echo: not started"), std::string::npos) << nested.error;
  EXPECT_EQ(nested.status, 7);

  // The entry is the command's own, however that ends, and is gone when it was never started.
  EXPECT_EQ(run("kill -9 $$").status, -1);
  EXPECT_EQ(Run({"run", "printf", "%s", "[a]", "--", "--b"}).output, "[a]----b");
  EXPECT_EQ(Run({"run", "--", "no-such-command"}).status, 127);
  EXPECT_EQ(Run({"run", "--", "/tmp"}).status, 126);
  EXPECT_TRUE(List().empty());
}

TEST_F(TranscodeProgram, WhatABenchRegistersDiesWithIt) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // a process that nobody waits for is still one
  const pid_t bench = fork();
  if (bench == 0) {
    execl(VELMORA_MODEL_PROGRAM, "velmora-model", "bench", VELMORA_SAMPLE_MODEL "/model.json",
          "--backend", "dnn", "--transcode", "3", nullptr);
    _exit(127);
  }
  while (List().empty()) {
    ASSERT_EQ(waitpid(bench, nullptr, WNOHANG), 0);
    usleep(100'000);
  }
  EXPECT_TRUE(List()[0]["hardware"].asBool());
  kill(bench, SIGKILL);
  while (wait(nullptr) > 0) {
  }
  EXPECT_TRUE(List().empty());
}

TEST_F(TranscodeProgram, StatusTellsWhatTheMachineCanDo) {
  const Json::Value status = Parse(Run({"status", "--json"}));
  EXPECT_EQ(status["platform"].asString(), "evansport");
  EXPECT_EQ(status["transcoder_name"].asString(), "evansport_2");
  EXPECT_TRUE(status["capabilities"]["hardware_transcode"].asBool());
  EXPECT_EQ(status["limits"]["hardware"].asInt(), 1);

  std::filesystem::remove_all("/tmp/Reelhouse");
  std::ofstream("/tmp/Reelhouse") << "in the folder's place";
  const Finished unlocked = Run({"status"});
  EXPECT_EQ(unlocked.status, 1);
  EXPECT_NE(unlocked.error.find("cannot be locked"), std::string::npos) << unlocked.error;
  EXPECT_NE(unlocked.output.find("platform      evansport"), std::string::npos);
}

TEST_F(TranscodeProgram, SlowBenchLosesNoRequestWhileTheGpuGoesAndComesBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the engine is loaded in a way that this sanitizer does not allow";
#endif
  if (!VELMORA_HAS_INFERENCE_ENGINE) {
    GTEST_SKIP() << "built without OpenVINO";
  }
  ASSERT_TRUE(PlaceFile("/var/packages/Velmora/target/models/.keep", ""));
  std::jthread reader([](const std::stop_token& stop) {  // or the log fills up
    while (!stop.stop_requested()) {
      velmora::test::TakeSyslog();
      usleep(10'000);
    }
  });
  setenv("LD_LIBRARY_PATH", VELMORA_STAND_INS, 1);
  setenv("VELMORA_TEST_PLATFORM", "ie gpu", 1);
  const Json::Value evening = Parse(Run({"bench", VELMORA_SAMPLE_MODEL "/model.json", "--backend",
                                         "ie", "--transcode", "1", "--json"},
                                        VELMORA_MODEL_PROGRAM));
  EXPECT_EQ(evening["lost"].asInt(), 0);
  std::string phases;
  for (const Json::Value& phase : evening["phases"]) {
    phases += phase["phase"].asString() + ": " + phase["devices"].asString() + "\n";
    EXPECT_GE(phase["requests"].size(), 19u);
  }
  EXPECT_EQ(phases, "before: GPU\ntranscoding: CPU\nquiet: CPU, then GPU\nafter: GPU\n");
  EXPECT_GE(evening["phases"][2]["requests"].size(), 20u * 59);
}

}  // namespace
