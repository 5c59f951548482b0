// One transaction on the transcoding record against the same by hand: its system calls, and
// JsonCpp's work on the same bytes. Each benchmark has two arguments, the entries of the record and
// how many processes do this, and nothing else, at once.
//
// It writes records of its own, so it refuses to start where there is one:
// scripts/own-places build/release/benchmarks/record-benchmark
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <reelhouse/trans_loading.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the reader and writer of the record

namespace {

constexpr char kFolder[] = "/tmp/Reelhouse";
constexpr char kRecord[] = "/tmp/Reelhouse/enabled";
constexpr int kTransactions = 1600;  // of all processes together

void Require(bool done, const char* what) {
  if (!done) {
    std::perror(what);
    std::exit(1);
  }
}

/// Leaves a record with that many entries, all of this process, which outlives the measurement.
void MakeRecord(std::int64_t entries) {
  unlink(kRecord);
  LibReelhouse::TransLoading transaction;
  for (std::int64_t i = 0; i < entries; ++i) {
    Require(transaction.SaveTransPID(getpid(), i % 2 == 0, false), kRecord);
  }
}

int Open(int flags, mode_t mode) {
  const int fd = open(kRecord, flags | O_NONBLOCK | O_CLOEXEC, mode);
  struct stat status;
  fstat(fd, &status);
  return fd;
}

/// The system calls of one transaction, as strace shows them, and JsonCpp's work between them.
void TransactByHand(std::int64_t entries, pid_t writer) {
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
    tgkill(writer, writer, 0);
  }
  Json::Value root;
  Json::Reader().parse(buffer.data(), buffer.data() + length, root, true);
  const std::string written = Json::FastWriter().write(root);
  file = Open(O_WRONLY | O_CREAT | O_TRUNC, 0666);
  benchmark::DoNotOptimize(write(file, written.data(), written.size()));
  close(file);
  chmod(kRecord, 0666);
  flock(lock, LOCK_UN);
  close(lock);
}

/// The time of one `work` when all processes do nothing else. They wait for the record's lock until
/// all are there.
template <typename Work>
void Measure(benchmark::State& state, Work work) {
  MakeRecord(state.range(0));
  const auto processes = static_cast<int>(state.range(1));
  for (auto _ : state) {
    const int lock = open(kRecord, O_RDONLY | O_CLOEXEC);
    Require(flock(lock, LOCK_EX) == 0, kRecord);
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
      children.push_back(fork());
      if (children.back() == 0) {
        for (int n = 0; n < kTransactions / processes; ++n) {
          work();
        }
        _exit(0);
      }
    }
    usleep(20'000);
    const auto start = std::chrono::steady_clock::now();
    flock(lock, LOCK_UN);
    for (const pid_t child : children) {
      int status = -1;
      Require(waitpid(child, &status, 0) == child && status == 0, "child");
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    close(lock);
    state.SetIterationTime(taken.count() / kTransactions);
  }
}

void Library(benchmark::State& state) {
  Measure(state, [] {
    const LibReelhouse::TransLoading transaction;
    benchmark::DoNotOptimize(transaction.IsHardwareTranscoding());
  });
}

void ByHand(benchmark::State& state) {
  Measure(state, [&state, self = getpid()] { TransactByHand(state.range(0), self); });
}

void EachSize(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgsProduct({{0, 1, 10, 100}, {1, 8}})->Iterations(1)->UseManualTime();
  benchmark->Unit(benchmark::kMicrosecond);
}

BENCHMARK(Library)->Apply(EachSize);
BENCHMARK(ByHand)->Apply(EachSize);

}  // namespace

int main(int argc, char** argv) {
  if (access(kRecord, F_OK) == 0) {
    std::fprintf(stderr, "record-benchmark: %s exists, and would be lost\n", kRecord);
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  unlink(kRecord);
}
