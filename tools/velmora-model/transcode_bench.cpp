#include <fmt/format.h>
#include <json/json.h>
#include <reelhouse/trans_loading.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora-plugin-platform/platform.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench.h"
#include "common/console.h"
#include "common/text.h"
#include "errors.h"
#include "images.h"
#include "model.h"
#include "summary.h"

namespace velmora::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kInterval(50);  // 20 requests a second
constexpr std::chrono::seconds kQuietMinute(60);

/// A process that is registered as transcoding with hardware. It ends with the object, and with
/// this process however that ends.
class Transcoder {
 public:
  Transcoder() {
    const pid_t self = getpid();
    process_ = fork();
    if (process_ == 0) {  // forked among threads: system calls only
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      while (getppid() == self) {
        pause();
      }
      _exit(1);
    }
    LibReelhouse::TransLoading record;
    if (process_ < 0 || !record.SaveTransPID(process_, true, false)) {
      End();
      throw std::runtime_error("the transcode could not be registered");
    }
  }
  Transcoder(const Transcoder&) = delete;
  Transcoder& operator=(const Transcoder&) = delete;
  ~Transcoder() { End(); }

 private:
  void End() const {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
  }

  pid_t process_ = -1;
};

struct Sample {
  double seconds = 0;  // since the start
  double milliseconds = 0;
  std::string device;
};

struct Phase {
  std::string name;
  std::vector<Sample> samples;
};

struct Switch {
  std::string from;
  std::string to;
  double milliseconds = 0;  // that the request at the switch took
};

/// Plays the evening and records it.
class Evening {
 public:
  Evening(const Model& model, cv::Mat image, std::size_t expected_requests)
      : model_(model), image_(std::move(image)), expected_(expected_requests) {}

  /// Sends requests at the steady rate until `done` says so.
  template <typename Done>
  void Play(const std::string& name, Done done) {
    phases_.push_back({name, {}});
    const Clock::time_point begin = Clock::now();
    for (Clock::time_point next = begin; !done(Clock::now() - begin); next += kInterval) {
      // Requests that a switch has delayed are sent at once.
      std::this_thread::sleep_until(next);
      Request();
    }
  }

  bool on_gpu() const { return model_.engine.device() == "GPU"; }
  const std::vector<Phase>& phases() const { return phases_; }
  const std::vector<Switch>& switches() const { return switches_; }
  int lost() const { return lost_; }
  void Finish() { console_.ClearProgress(); }

 private:
  void Request() {
    const std::string before = model_.engine.device();
    const Clock::time_point sent = Clock::now();
    try {
      double ignored = 0;
      RunNetwork(model_, {image_}, &ignored);
    } catch (...) {
      ++lost_;
      console_.Error("a request was lost", CurrentError());
    }
    const std::chrono::duration<double, std::milli> latency = Clock::now() - sent;
    const std::chrono::duration<double> time = sent - start_;
    phases_.back().samples.push_back({time.count(), latency.count(), model_.engine.device()});
    if (model_.engine.device() != before) {
      switches_.push_back({before, model_.engine.device(), latency.count()});
    }
    console_.ShowProgress(std::min(++requests_, expected_), expected_);
  }

  const Model& model_;
  cv::Mat image_;
  std::size_t expected_;
  std::size_t requests_ = 0;
  Clock::time_point start_ = Clock::now();
  std::vector<Phase> phases_;
  std::vector<Switch> switches_;
  int lost_ = 0;
  Console console_;
};

double LatencyOf(const Phase& phase, double percent) {
  std::vector<double> latencies;
  for (const Sample& sample : phase.samples) {
    latencies.push_back(sample.milliseconds);
  }
  return Percentile(std::move(latencies), percent);
}

std::string DevicesOf(const Phase& phase) {
  std::string devices;
  for (const Sample& sample : phase.samples) {
    if (!devices.ends_with(sample.device)) {
      devices += (devices.empty() ? "" : ", then ") + sample.device;
    }
  }
  return devices;
}

Json::Value ToJson(const Evening& evening, const Model& model) {
  Json::Value document;
  document["model"] = JsonText(model.name);
  document["engine"] = model.engine.name;
  document["gpu"] = plugin::platform::IsSupportedIENetworkGpu();
  document["lost"] = evening.lost();
  document["switches"] = Json::arrayValue;
  for (const Switch& change : evening.switches()) {
    Json::Value& entry = document["switches"].append(Json::objectValue);
    entry["from"] = change.from;
    entry["to"] = change.to;
    entry["gap_ms"] = change.milliseconds;
  }
  for (const Phase& phase : evening.phases()) {
    Json::Value& entry = document["phases"].append(Json::objectValue);
    entry["phase"] = phase.name;
    entry["devices"] = DevicesOf(phase);
    for (const int percent : {50, 90, 99, 100}) {
      entry["latency_ms"][percent == 100 ? "max" : fmt::format("p{}", percent)] =
          LatencyOf(phase, percent);
    }
    for (const Sample& sample : phase.samples) {
      Json::Value& point = entry["requests"].append(Json::objectValue);
      point["s"] = sample.seconds;
      point["ms"] = sample.milliseconds;
      point["device"] = sample.device;
    }
  }
  return document;
}

void PrintTable(const Evening& evening) {
  Print(fmt::format("{:<12}  {:<14}  {:>8}  {:>8}  {:>8}  {:>8}  {:>8}\n", "phase", "device",
                    "requests", "p50 (ms)", "p90", "p99", "max"));
  for (const Phase& phase : evening.phases()) {
    Print(fmt::format("{:<12}  {:<14}  {:>8}  {:>8.3f}  {:>8.3f}  {:>8.3f}  {:>8.3f}\n", phase.name,
                      DevicesOf(phase), phase.samples.size(), LatencyOf(phase, 50),
                      LatencyOf(phase, 90), LatencyOf(phase, 99), LatencyOf(phase, 100)));
  }
  Print("\n");
  for (const Switch& change : evening.switches()) {
    Print(fmt::format("switch from {} to {}: the request took {:.1f} ms\n", change.from, change.to,
                      change.milliseconds));
  }
  Print(fmt::format("requests lost: {}\n", evening.lost()));
}

}  // namespace

int BenchTranscode(const BenchOptions& options) {
  const Model model = LoadModel(options.model, options.backend);
  Console console;
  const bool may_move = model.engine.network->ShouldExitAfterShutdown();
  if (!may_move) {
    console.Say("no GPU for this network here: the evening is played on the CPU");
  }

  const std::chrono::seconds length(options.transcode);
  const auto for_length = [length](Clock::duration played) { return played >= length; };
  Evening evening(model, Prepare(MadeUpImage(model), model),
                  static_cast<std::size_t>((3 * length + kQuietMinute) / kInterval));
  evening.Play("before", for_length);
  {
    const Transcoder transcoder;
    evening.Play("transcoding", for_length);
  }
  evening.Play("quiet", [&](Clock::duration played) {
    return may_move ? evening.on_gpu() || played >= 2 * kQuietMinute : played >= kQuietMinute;
  });
  evening.Play("after", for_length);
  evening.Finish();

  if (options.json) {
    PrintJson(ToJson(evening, model));
  } else {
    PrintTable(evening);
  }
  return evening.lost() == 0 ? kDone : kNotAllDone;
}

}  // namespace velmora::tool
