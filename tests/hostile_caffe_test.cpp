// Damaged model files, in child processes: each must end in an error or in a network that runs.
// docs/hostile-models.md lists what OpenCV itself does not survive; no layer of that list is used
// here, so that no death is to be excused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>
#include <stdexcept>

#include "opencv/caffe_model.h"
#include "support/caffe_writer.h"

namespace velmora::plugin::network::compat {
namespace {

using test::CaffeModel;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr int kStride = kSanitized ? 10 : 1;  // every so many-th case

/// A file in memory: on a disk, files would take most of this test's time.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("hostile", MFD_CLOEXEC)) {}
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// The path of the file with this content.
  std::string With(const std::string& bytes) const {
    if (ftruncate(fd_, 0) != 0 ||
        pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
      throw std::logic_error("cannot write to memory");
    }
    return "/proc/self/fd/" + std::to_string(fd_);
  }

 private:
  int fd_;
};

/// Shared by a child, which counts, and its parent.
struct Tally {
  std::atomic<int> next;
  std::atomic<int> refused;
  std::atomic<int> failed;  // loaded, but did not run
  std::atomic<int> ran;
};

void RunCase(const std::function<::cv::dnn::Net()>& load, Tally& tally) {
  ::cv::dnn::Net net;
  try {
    net = load();
  } catch (const std::exception&) {
    ++tally.refused;
    return;
  }
  if (net.empty()) {
    ++tally.refused;
    return;
  }
  try {
    const int shape[] = {1, 3, 8, 8};
    net.setInput(::cv::Mat(4, shape, CV_32F, ::cv::Scalar(0.5)), "data");
    net.forward();
    ++tally.ran;
  } catch (const std::exception&) {
    ++tally.failed;
  }
}

using Load = std::function<::cv::dnn::Net(int)>;

[[noreturn]] void RunCases(int count, const Load& load, Tally& tally) {
  // OpenCV and protobuf tell the terminal about each damaged file.
  dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
  ::cv::setNumThreads(1);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  const rlimit memory = {4UL << 30, 4UL << 30};
  if (!kSanitized) setrlimit(RLIMIT_AS, &memory);  // a sanitizer reserves more than that
  while (tally.next < count) {
    const int index = tally.next++;
    alarm(30);
    RunCase([&] { return load(index); }, tally);
  }
  _exit(0);
}

/// Runs cases 0 to `count` - 1 in a child process, and in a new one after each that dies. Returns
/// the deaths.
std::vector<std::string> Survive(int count, const Load& load, Tally& tally) {
  std::vector<std::string> deaths;
  while (tally.next < count) {
    const pid_t child = fork();
    if (child == 0) RunCases(count, load, tally);
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

void ExpectSurvival(const std::string& name, int count, const Load& load) {
  void* const shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Tally& tally = *new (shared) Tally{};
  EXPECT_EQ(Survive(count, load, tally), std::vector<std::string>()) << name;
  EXPECT_EQ(tally.next, count) << name;
  EXPECT_GT(tally.refused, count / 100) << name;
  EXPECT_GT(tally.ran, 0) << name;
  testing::Test::RecordProperty(name + "_refused", tally.refused);
  testing::Test::RecordProperty(name + "_ran", tally.ran);
  munmap(shared, sizeof(Tally));
}

std::string FlipOneBit(std::string bytes, int seed) {
  std::mt19937 random(static_cast<unsigned>(seed));
  bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
  return bytes;
}

class HostileCaffe : public testing::TestWithParam<bool> {
 protected:
  const CaffeModel model_ = GetParam() ? test::NewFormModel() : test::OldFormModel();

  ::cv::dnn::Net Binary(const std::string& bytes) const {
    return ReadCaffeBinary(first_.With(bytes));
  }
  ::cv::dnn::Net Pair(const std::string& prototxt, const std::string& weights) const {
    return ReadCaffePair(first_.With(prototxt), second_.With(weights));
  }

 private:
  const MemoryFile first_;
  const MemoryFile second_;
};

INSTANTIATE_TEST_SUITE_P(, HostileCaffe, testing::Bool(),
                         [](const auto& form) { return form.param ? "NewForm" : "OldForm"; });

// The longest truncation is the whole model, which runs.
TEST_P(HostileCaffe, EveryTruncation) {
  const auto cases = [](const std::string& bytes) {
    return static_cast<int>(bytes.size()) / kStride + 1;
  };
  const auto cut = [](const std::string& bytes, int index) {
    return bytes.substr(0, bytes.size() - static_cast<std::size_t>(index * kStride));
  };
  ExpectSurvival("binary", cases(model_.binary),
                 [&](int i) { return Binary(cut(model_.binary, i)); });
  ExpectSurvival("weights", cases(model_.weights),
                 [&](int i) { return Pair(model_.prototxt, cut(model_.weights, i)); });
}

TEST_P(HostileCaffe, ThousandsOfFlippedBits) {
  ExpectSurvival("binary", 4000 / kStride,
                 [&](int i) { return Binary(FlipOneBit(model_.binary, i)); });
  ExpectSurvival("weights", 2000 / kStride,
                 [&](int i) { return Pair(model_.prototxt, FlipOneBit(model_.weights, i)); });
  ExpectSurvival("prototxt", 2000 / kStride,
                 [&](int i) { return Pair(FlipOneBit(model_.prototxt, i), model_.weights); });
}

}  // namespace
}  // namespace velmora::plugin::network::compat
