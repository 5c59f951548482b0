#include "support/hostile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <vector>

namespace velmora::test {

namespace {

/// Shared by a child, which counts, and its parent.
struct Tally {
  std::atomic<int> next;
  std::atomic<int> outcomes[3];
};

using Run = std::function<Outcome(int)>;

[[noreturn]] void RunCases(int count, const Run& run, Tally& tally) {
  // Engines tell the terminal about each damaged file.
  dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  const rlimit memory = {4UL << 30, 4UL << 30};
  if (!kSanitized) setrlimit(RLIMIT_AS, &memory);  // a sanitizer reserves more than that
  while (tally.next < count) {
    const int index = tally.next++;
    alarm(30);
    ++tally.outcomes[static_cast<int>(run(index))];
  }
  _exit(0);
}

/// In a child process, and in a new one after each that dies. Returns the deaths.
std::vector<std::string> Survive(int count, const Run& run, Tally& tally) {
  std::vector<std::string> deaths;
  while (tally.next < count) {
    const pid_t child = fork();
    if (child == 0) RunCases(count, run, tally);
    int status = 0;
    if (waitpid(child, &status, 0) != child) throw std::runtime_error("no child process");
    if (status != 0) {
      deaths.push_back("case " + std::to_string(tally.next - 1) +
                       (WIFSIGNALED(status) ? " ended by signal " + std::to_string(WTERMSIG(status))
                                            : " ended the process"));
    }
  }
  return deaths;
}

}  // namespace

MemoryFile::MemoryFile() : fd_(memfd_create("hostile", MFD_CLOEXEC)) {}

MemoryFile::~MemoryFile() { close(fd_); }

std::string MemoryFile::With(const std::string& bytes) const {
  if (ftruncate(fd_, 0) != 0 ||
      pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::logic_error("cannot write to memory");
  }
  return "/proc/self/fd/" + std::to_string(fd_);
}

void ExpectSurvival(const std::string& name, int count, const Run& run) {
  void* const shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Tally& tally = *new (shared) Tally{};
  EXPECT_EQ(Survive(count, run, tally), std::vector<std::string>()) << name;
  const auto& [refused, failed, ran] = tally.outcomes;
  EXPECT_EQ(tally.next, count) << name;
  EXPECT_GT(refused, count / 100) << name;
  EXPECT_GT(ran, 0) << name;
  testing::Test::RecordProperty(name + "_refused", refused);
  testing::Test::RecordProperty(name + "_failed", failed);
  testing::Test::RecordProperty(name + "_ran", ran);
  munmap(shared, sizeof(Tally));
}

std::string FlipOneBit(std::string bytes, int seed) {
  std::mt19937 random(static_cast<unsigned>(seed));
  bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
  return bytes;
}

int Truncations(const std::string& bytes) { return static_cast<int>(bytes.size()) / kStride + 1; }

std::string Truncated(const std::string& bytes, int index) {
  return bytes.substr(0, bytes.size() - static_cast<std::size_t>(index * kStride));
}

}  // namespace velmora::test
