#include "support/hostile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <stdexcept>

namespace velmora::test {

MemoryFile::MemoryFile() : fd_(memfd_create("hostile", MFD_CLOEXEC)) {}

MemoryFile::~MemoryFile() { close(fd_); }

std::string MemoryFile::With(const std::string& bytes) const {
  if (ftruncate(fd_, 0) != 0 ||
      pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::logic_error("cannot write to memory");
  }
  return "/proc/self/fd/" + std::to_string(fd_);
}

void ExpectSurvival(const std::string& name, int count, const std::function<Outcome(int)>& run) {
  struct Tally {  // the child counts, the parent reads
    int next;
    int outcomes[3];
  };
  void* const shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Tally& tally = *new (shared) Tally{};
  const pid_t child = fork();
  if (child == 0) {
    // Engines tell the terminal about each damaged file.
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    const rlimit memory = {4UL << 30, 4UL << 30};
    if (!kSanitized) setrlimit(RLIMIT_AS, &memory);  // a sanitizer reserves more than that
    for (; tally.next < count; ++tally.next) {
      alarm(30);
      ++tally.outcomes[static_cast<int>(run(tally.next))];
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << name << ": case " << tally.next << " ended its process";
  EXPECT_GT(tally.outcomes[static_cast<int>(Outcome::kRefused)], count / 100) << name;
  EXPECT_GT(tally.outcomes[static_cast<int>(Outcome::kRan)], 0) << name;
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
