#include "bench.h"

#include <fmt/format.h>
#include <json/json.h>
#include <sys/utsname.h>

#include <CLI/Option.hpp>
#include <chrono>
#include <ctime>
#include <fstream>
#include <memory>
#include <numeric>
#include <set>
#include <thread>
#include <utility>

#include "child_process.h"
#include "commands.h"
#include "common/console.h"
#include "common/text.h"
#include "errors.h"
#include "images.h"
#include "model.h"
#include "summary.h"

namespace velmora::tool {

namespace {

constexpr char kHelp[] =
    R"(Without images, a made-up image of the model's size is used. A run is one batch
through the network; the time to read and prepare images is not counted. p90 is
the time that 90 % of the runs did not exceed.

--transcode plays a video evening: 20 inferences a second for SECONDS; as long
again while another process is registered as transcoding with hardware; then
until the network is back on the GPU, or for the quiet minute if there is no
GPU; then SECONDS more.

Examples:
  velmora-model bench digits/model.json
  velmora-model bench --json --iterations 1000 digits/model.json digits/images
)";

#ifdef __OPTIMIZE__
constexpr bool kOptimised = true;
#else
constexpr bool kOptimised = false;
#endif

/// What the process holds.
struct Held {
  std::size_t resident_kib = 0;
  std::size_t libraries = 0;  // mapped shared objects
};

struct Machine {
  std::string cpu;
  std::string kernel;
};

/// All times are in milliseconds.
struct Report {
  Machine machine;
  std::size_t images = 0;
  std::vector<std::pair<const char*, double>> latency;  // of a run: the mean and percentiles
  double images_per_second = 0;
  double busy_cores = 0;
  double load = 0;
  Held before;  // loading the model
  Held loaded;
};

Machine ThisMachine() {
  utsname system{};
  uname(&system);
  // Not every architecture has the name in /proc/cpuinfo.
  Machine machine = {system.machine,
                     fmt::format("{} {} {}", system.sysname, system.release, system.machine)};
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (const std::size_t colon = line.find(": ");
        line.starts_with("model name") && colon != std::string::npos) {
      machine.cpu = line.substr(colon + 2);
    }
  }
  return machine;
}

Held HoldsNow() {
  std::set<std::string> libraries;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (const std::size_t path = line.find('/');
        path != std::string::npos && line.find(".so", path) != std::string::npos) {
      libraries.insert(line.substr(path));
    }
  }
  return {ResidentKib("self"), libraries.size()};
}

std::vector<cv::Mat> PrepareInput(const BenchOptions& options, const Model& model,
                                  Console* console) {
  std::vector<cv::Mat> prepared;
  if (options.images.empty()) {
    prepared.push_back(Prepare(MadeUpImage(model), model));
  }
  for (const std::string& path : ListImages(options.images, console)) {
    try {
      prepared.push_back(Prepare(ReadImage(path, model.channels), model));
    } catch (...) {
      console->Error(path, CurrentError());
    }
  }
  return prepared;
}

/// The latency in milliseconds of each iteration after the warm-up.
std::vector<double> Measure(const BenchOptions& options, const Model& model,
                            const std::vector<cv::Mat>& input, Console* console) {
  std::vector<double> latencies;
  std::size_t next = 0;
  const int total = options.warmup + options.iterations;
  for (int i = 0; i < total; ++i) {
    std::vector<cv::Mat> batch;
    batch.reserve(static_cast<std::size_t>(options.batch));
    for (int k = 0; k < options.batch; ++k) {
      batch.push_back(input[next++ % input.size()]);
    }
    double seconds = 0;
    RunNetwork(model, batch, &seconds);
    if (i >= options.warmup) {
      latencies.push_back(seconds * 1000);
    }
    console->ShowProgress(static_cast<std::size_t>(i), static_cast<std::size_t>(total));
  }
  console->ClearProgress();
  return latencies;
}

Json::Value ToJson(const Held& held) {
  Json::Value value;
  value["resident_kib"] = Json::UInt64{held.resident_kib};
  value["libraries"] = Json::UInt64{held.libraries};
  return value;
}

Json::Value ToJson(const Report& report, const BenchOptions& options, const Model& model) {
  Json::Value document = ToJson(model);
  document["iterations"] = options.iterations;
  document["warmup"] = options.warmup;
  document["batch"] = options.batch;
  document["images"] = Json::UInt64{report.images};
  for (const auto& [name, milliseconds] : report.latency) {
    document["latency_ms"][name] = milliseconds;
  }
  document["images_per_second"] = report.images_per_second;
  document["busy_cores"] = report.busy_cores;
  document["load_ms"] = report.load;
  document["held"]["before"] = ToJson(report.before);
  document["held"]["loaded"] = ToJson(report.loaded);
  document["machine"]["cpu"] = JsonText(report.machine.cpu);
  document["machine"]["cores"] = std::thread::hardware_concurrency();
  document["machine"]["kernel"] = report.machine.kernel;
  document["build"]["version"] = VELMORA_VERSION;
  document["build"]["type"] = VELMORA_BUILD_TYPE;
  document["build"]["compiler"] = VELMORA_COMPILER;
  document["build"]["optimised"] = kOptimised;
  return document;
}

void PrintTable(const Report& report, const BenchOptions& options, const Model& model) {
  Print(fmt::format("model       {}\n", OneLine(model.name)));
  Print(EngineLines(model.engine));
  Print(fmt::format("machine     {}, {} cores, {}\n", OneLine(report.machine.cpu),
                    std::thread::hardware_concurrency(), report.machine.kernel));
  Print(fmt::format("build       {} {}, {}{}\n", VELMORA_VERSION, VELMORA_BUILD_TYPE,
                    VELMORA_COMPILER, kOptimised ? "" : ", NOT OPTIMISED"));
  Print(fmt::format("runs        {} of batch {}, after {} to warm up\n", options.iterations,
                    options.batch, options.warmup));
  Print(fmt::format("throughput  {:.1f} images/s\n\n", report.images_per_second));
  std::string names;
  std::string values;
  for (const auto& [name, milliseconds] : report.latency) {
    names += fmt::format("{:>10}", name);
    values += fmt::format("{:>10.3f}", milliseconds);
  }
  Print(fmt::format("latency of a run (ms)\n{}\n{}\n", names, values));
}

int Bench(const BenchOptions& options) {
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  Report report;
  report.machine = ThisMachine();
  report.before = HoldsNow();
  const Clock::time_point load_start = Clock::now();
  Model model = LoadModel(options.model, options.backend);
  report.load = Milliseconds(Clock::now() - load_start).count();
  report.loaded = HoldsNow();
  Console console;
  if (!kOptimised) {
    console.Say("warning: this is not an optimised build: its times mean little");
  }
  const std::vector<cv::Mat> input = PrepareInput(options, model, &console);
  if (input.empty()) {
    return kNotAllDone;
  }
  report.images = input.size();
  std::vector<double> latencies;
  const Clock::time_point start = Clock::now();
  const std::clock_t processor_start = std::clock();
  try {
    latencies = Measure(options, model, input, &console);
  } catch (...) {
    console.Error(options.model, CurrentError());
    return kNotAllDone;
  }
  const double processor = static_cast<double>(std::clock() - processor_start) / CLOCKS_PER_SEC;
  report.busy_cores = processor * 1000 / Milliseconds(Clock::now() - start).count();
  const double mean = std::accumulate(latencies.begin(), latencies.end(), 0.0) /
                      static_cast<double>(latencies.size());
  report.images_per_second = options.batch / mean * 1000;
  report.latency = {{"mean", mean},
                    {"p50", Percentile(latencies, 50)},
                    {"p90", Percentile(latencies, 90)},
                    {"p95", Percentile(latencies, 95)},
                    {"p99", Percentile(latencies, 99)},
                    {"max", Percentile(latencies, 100)}};
  if (options.json) {
    Json::Value document = ToJson(report, options, model);
    model.engine.network.reset();
    document["held"]["deleted"] = ToJson(HoldsNow());
    PrintJson(document);
  } else {
    PrintTable(report, options, model);
  }
  return console.any_error() ? kNotAllDone : kDone;
}

}  // namespace

void AddBench(CLI::App* program, int* status) {
  const auto options = std::make_shared<BenchOptions>();
  CLI::App* const command = AddCommand(
      program, "bench", "Measure a model's speed", fmt::format("{}\n{}", kHelp, kStatusHelp),
      status,
      [options] { return options->transcode > 0 ? BenchTranscode(*options) : Bench(*options); });
  AddModel(command, &options->model);
  CLI::Option* const images = AddImages(command, &options->images, false);
  AddBackend(command, &options->backend);
  CLI::Option* const transcode = AddNumber(command, "--transcode", &options->transcode, "SECONDS",
                                           1, 3600, "Play a video evening instead: see below");
  CLI::Option* const iterations = AddNumber(command, "--iterations", &options->iterations, "N", 1,
                                            1'000'000, "Runs to measure [200]");
  CLI::Option* const warmup = AddNumber(command, "--warmup", &options->warmup, "N", 0, 1'000'000,
                                        "Runs before those, not measured [20]");
  CLI::Option* const batch =
      AddNumber(command, "--batch", &options->batch, "N", 1, 4096, "Images in a run [1]");
  AddJson(command, &options->json);
  for (CLI::Option* const other : {images, iterations, warmup, batch}) {
    transcode->excludes(other);
  }
}

}  // namespace velmora::tool
