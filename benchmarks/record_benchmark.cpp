// What one transaction on the transcoding record costs beside its parts: the same system calls made
// bare, and JsonCpp's work on the same bytes. Everything is measured in one run, alone and with
// eight processes contending. It replaces the machine's record: benchmarks/run gives it one of its
// own.
//
// Alone, a transaction is compared with the sum of the two parts. Under contention a sum says
// nothing, because the parts have to wait for each other: there it is compared with the same calls
// and the same JSON work written down one after the other, under the same lock.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/trans_loading.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the reader and writer of the record

namespace {

constexpr char kFolder[] = "/tmp/Reelhouse";
constexpr char kRecord[] = "/tmp/Reelhouse/enabled";
constexpr int kProcesses = 8;
constexpr int kTransactions = 200;  // of each process, when they contend

void Require(bool done, const char* what) {
  if (!done) {
    std::perror(what);
    std::exit(1);
  }
}

/// The record with that many entries, all of this process, which outlives the measurement.
std::string MakeRecord(std::int64_t entries) {
  static const int self = getpid();
  unlink(kRecord);
  {
    LibReelhouse::TransLoading transaction;
    for (std::int64_t i = 0; i < entries; ++i) {
      transaction.SaveTransPID(self, i % 2 == 0, false);
    }
  }
  std::ostringstream text;
  text << std::ifstream(kRecord).rdbuf();
  Require(!text.str().empty(), kRecord);
  return text.str();
}

void Transaction() {
  const LibReelhouse::TransLoading transaction;
  benchmark::DoNotOptimize(transaction.IsHardwareTranscoding());
}

std::string ParseAndWrite(const std::string& text) {
  std::istringstream stream(text);
  Json::Value root;
  Json::Reader reader;
  reader.parse(stream, root, true);
  Json::FastWriter writer;
  return writer.write(root);
}

int Open(int flags, mode_t mode) {
  const int fd = open(kRecord, flags | O_NONBLOCK | O_CLOEXEC, mode);
  struct stat status;
  fstat(fd, &status);
  return fd;
}

/// The system calls of one transaction, as strace shows them, with or without the JSON work.
void SystemCalls(const std::string& text, std::int64_t entries, bool with_json) {
  static const int self = getpid();
  static std::array<char, 1 << 16> buffer;
  struct stat status;
  stat(kFolder, &status);
  const int lock = Open(O_RDONLY | O_CREAT, 0644);
  flock(lock, LOCK_EX);
  stat(kRecord, &status);
  int file = Open(O_RDONLY, 0);
  std::size_t length = 0;
  for (ssize_t size = 0; (size = read(file, buffer.data() + length, 4096)) > 0;) {
    length += static_cast<std::size_t>(size);
  }
  close(file);
  for (std::int64_t i = 0; i < entries; ++i) {
    tgkill(self, self, 0);
  }
  file = Open(O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (with_json) {
    const std::string written = ParseAndWrite(std::string(buffer.data(), length));
    benchmark::DoNotOptimize(write(file, written.data(), written.size()));
  } else {
    benchmark::DoNotOptimize(write(file, text.data(), text.size()));
  }
  close(file);
  chmod(kRecord, 0666);
  flock(lock, LOCK_UN);
  close(lock);
}

void BM_Calls(benchmark::State& state) {
  const std::string text = MakeRecord(state.range(0));
  for (auto _ : state) {
    SystemCalls(text, state.range(0), false);
  }
}

void BM_Json(benchmark::State& state) {
  const std::string text = MakeRecord(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(ParseAndWrite(text));
  }
}

void BM_Transaction(benchmark::State& state) {
  MakeRecord(state.range(0));
  for (auto _ : state) {
    Transaction();
  }
}

/// Time of one `work` when eight processes do nothing else at once.
template <typename Work>
void Contend(benchmark::State& state, Work work) {
  auto* const start = static_cast<std::atomic<bool>*>(mmap(nullptr, sizeof(std::atomic<bool>),
                                                           PROT_READ | PROT_WRITE,
                                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  Require(start != MAP_FAILED, "mmap");
  for (auto _ : state) {
    *start = false;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        work();  // touches everything once
        while (!*start) {
          usleep(100);
        }
        for (int n = 0; n < kTransactions; ++n) {
          work();
        }
        _exit(0);
      }
      children.push_back(child);
    }
    usleep(20'000);
    const auto before = std::chrono::steady_clock::now();
    *start = true;
    for (const pid_t child : children) {
      int status = -1;
      Require(waitpid(child, &status, 0) == child && status == 0, "child");
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - before;
    state.SetIterationTime(taken.count() / (kProcesses * kTransactions));
  }
  munmap(start, sizeof *start);
}

void BM_ContendedCallsWithJson(benchmark::State& state) {
  const std::string text = MakeRecord(state.range(0));
  Contend(state, [&] { SystemCalls(text, state.range(0), true); });
}

void BM_ContendedTransaction(benchmark::State& state) {
  MakeRecord(state.range(0));
  Contend(state, Transaction);
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int entries : {0, 1, 10, 100}) {
    benchmark->Arg(entries);
  }
  // The best of many short ones, in turns: what other programs on the machine add is not the
  // record's.
  const auto best = [](const std::vector<double>& v) {
    return *std::min_element(v.begin(), v.end());
  };
  benchmark->Repetitions(25)->ReportAggregatesOnly()->Unit(benchmark::kMicrosecond);
  benchmark->ComputeStatistics("best", best);
}

void Contended(benchmark::internal::Benchmark* benchmark) {
  Sizes(benchmark);
  benchmark->UseManualTime()->Iterations(1);
}

BENCHMARK(BM_Calls)->Apply(Sizes);
BENCHMARK(BM_Json)->Apply(Sizes);
BENCHMARK(BM_Transaction)->Apply(Sizes);
BENCHMARK(BM_ContendedCallsWithJson)->Apply(Contended);
BENCHMARK(BM_ContendedTransaction)->Apply(Contended);

}  // namespace
