// Damaged model files, in child processes: each must end in an error or in a network that runs.
#pragma once

#include <functional>
#include <string>

namespace velmora::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr int kStride = kSanitized ? 10 : 1;  // every so many-th case

/// A file in memory: on a disk, files would take most of such a test's time.
class MemoryFile {
 public:
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// The path of the file with this content.
  std::string With(const std::string& bytes) const;

 private:
  int fd_;
};

enum class Outcome { kRefused, kFailed, kRan };  // kFailed: loaded, but did not run

/// Runs the cases 0 to `count` - 1 in a child process. Fails the calling test at the first case
/// that ends it, and when no case runs or fewer than one in a hundred is refused.
void ExpectSurvival(const std::string& name, int count, const std::function<Outcome(int)>& run);

std::string FlipOneBit(std::string bytes, int seed);

/// The number of truncations of a file; the longest is the whole file.
int Truncations(const std::string& bytes);
std::string Truncated(const std::string& bytes, int index);

}  // namespace velmora::test
