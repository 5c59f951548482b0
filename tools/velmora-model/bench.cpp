#include <fmt/format.h>
#include <json/json.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fstream>
#include <numeric>
#include <set>
#include <thread>

#include "child_process.h"
#include "commands.h"
#include "common.h"
#include "images.h"
#include "model.h"

namespace velmora::tool {

namespace {

#ifdef __OPTIMIZE__
constexpr bool kOptimised = true;
#else
constexpr bool kOptimised = false;
#endif

#ifdef __clang__
constexpr const char kCompiler[] = __VERSION__;
#else
constexpr const char kCompiler[] = "GCC " __VERSION__;
#endif

std::string CpuModel(const utsname& system) {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (const std::size_t colon = line.find(": ");
        line.starts_with("model name") && colon != std::string::npos) {
      return line.substr(colon + 2);
    }
  }
  return system.machine;  // not every architecture names its model
}

/// What the process holds at this moment: memory, and shared objects that are mapped.
Json::Value Held() {
  std::set<std::string> libraries;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (const std::size_t path = line.find('/');
        path != std::string::npos && line.find(".so", path) != std::string::npos) {
      libraries.insert(line.substr(path));
    }
  }
  Json::Value held;
  held["resident_kib"] = Json::UInt64{ResidentKib("self")};
  held["libraries"] = Json::UInt64{libraries.size()};
  return held;
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
      console->Fault(path, CurrentFault());
    }
  }
  return prepared;
}

/// The latency of each iteration in milliseconds, without those of the warm-up.
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
    Forward(model, batch, &seconds);
    if (i >= options.warmup) {
      latencies.push_back(seconds * 1000);
    }
    console->ShowProgress(static_cast<std::size_t>(i), static_cast<std::size_t>(total));
  }
  console->ClearProgress();
  return latencies;
}

/// The smallest latency that so many percent of the iterations do not exceed.
double Percentile(const std::vector<double>& sorted, double percent) {
  const double rank = std::ceil(percent / 100 * static_cast<double>(sorted.size()));
  return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

}  // namespace

int Bench(const BenchOptions& options) {
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  Json::Value held;
  held["before"] = Held();
  const Clock::time_point load_start = Clock::now();
  Model model = LoadModel(options.model, options.backend);
  const Milliseconds load = Clock::now() - load_start;
  held["loaded"] = Held();
  Console console;
  if (!kOptimised) {
    console.Say("warning: this is not an optimised build: its times mean little");
  }
  const std::vector<cv::Mat> input = PrepareInput(options, model, &console);
  if (input.empty()) {
    return kNotAllDone;
  }
  std::vector<double> latencies;
  const Clock::time_point start = Clock::now();
  const std::clock_t processor_start = std::clock();
  try {
    latencies = Measure(options, model, input, &console);
  } catch (...) {
    console.Fault(options.model, CurrentFault());
    return kNotAllDone;
  }
  const double processor = static_cast<double>(std::clock() - processor_start) / CLOCKS_PER_SEC;
  const double busy_cores = processor * 1000 / Milliseconds(Clock::now() - start).count();
  const double sum = std::accumulate(latencies.begin(), latencies.end(), 0.0);
  const double images = static_cast<double>(latencies.size()) * options.batch;
  const double images_per_second = images / sum * 1000;
  std::sort(latencies.begin(), latencies.end());
  const std::pair<const char*, double> statistics[] = {
      {"mean", sum / static_cast<double>(latencies.size())},
      {"p50", Percentile(latencies, 50)},
      {"p90", Percentile(latencies, 90)},
      {"p95", Percentile(latencies, 95)},
      {"p99", Percentile(latencies, 99)},
      {"max", latencies.back()}};
  utsname system{};
  uname(&system);

  Json::Value document;
  document["model"] = JsonText(model.name);
  document["engine"] = model.engine.name;
  document["device"] = model.engine.device();
  document["why"] = model.engine.why;
  document["iterations"] = options.iterations;
  document["warmup"] = options.warmup;
  document["batch"] = options.batch;
  document["images"] = Json::UInt64{input.size()};
  for (const auto& [name, milliseconds] : statistics) {
    document["latency_ms"][name] = milliseconds;
  }
  document["images_per_second"] = images_per_second;
  document["busy_cores"] = busy_cores;
  document["load_ms"] = load.count();
  Json::Value& machine = document["machine"];
  machine["cpu"] = JsonText(CpuModel(system));
  machine["cores"] = std::thread::hardware_concurrency();
  machine["kernel"] = fmt::format("{} {} {}", system.sysname, system.release, system.machine);
  Json::Value& build = document["build"];
  build["version"] = VELMORA_VERSION;
  build["type"] = VELMORA_BUILD_TYPE;
  build["compiler"] = kCompiler;
  build["optimised"] = kOptimised;
  if (options.json) {
    model.engine.network.reset();
    held["deleted"] = Held();
    document["held"] = held;
    PrintJson(document);
    return console.any_fault() ? kNotAllDone : kDone;
  }

  std::string names;
  std::string values;
  for (const auto& [name, milliseconds] : statistics) {
    names += fmt::format("{:>10}", name);
    values += fmt::format("{:>10.3f}", milliseconds);
  }
  Print(fmt::format("model       {}\n", OneLine(model.name)));
  Print(EngineLines(model.engine));
  Print(fmt::format("machine     {}, {} cores, {}\n", OneLine(machine["cpu"].asString()),
                    machine["cores"].asUInt(), machine["kernel"].asString()));
  Print(fmt::format("build       {} {}, {}{}\n", VELMORA_VERSION, VELMORA_BUILD_TYPE, kCompiler,
                    kOptimised ? "" : ", NOT OPTIMISED"));
  Print(fmt::format("runs        {} of batch {}, after {} to warm up\n", options.iterations,
                    options.batch, options.warmup));
  Print(fmt::format("throughput  {:.1f} images/s\n\n", images_per_second));
  Print(fmt::format("latency of a run (ms)\n{}\n{}\n", names, values));
  return console.any_fault() ? kNotAllDone : kDone;
}

}  // namespace velmora::tool
