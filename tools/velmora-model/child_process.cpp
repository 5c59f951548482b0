#include "child_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>
#include <system_error>

namespace velmora::tool {

namespace {

using Clock = std::chrono::steady_clock;

/// A descriptor that is closed at the end of its scope.
class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {
    if (value < 0) {
      throw std::system_error(errno, std::generic_category());
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Close(); }

  operator int() const { return value_; }  // NOLINT(google-explicit-constructor)
  void Close() {
    if (value_ >= 0) {
      close(value_);
    }
    value_ = -1;  // which poll() ignores
  }

 private:
  int value_;
};

/// Starts this program with /dev/null, `output` and `error` as its standard streams.
pid_t Spawn(std::vector<std::string> arguments, int output, int error) {
  arguments.insert(arguments.begin(), VELMORA_PROGRAM);
  arguments.push_back(std::to_string(getpid()));
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
  pid_t child = 0;
  const int failure =
      posix_spawn(&child, "/proc/self/exe", &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    throw std::system_error(failure, std::generic_category(), "/proc/self/exe");
  }
  return child;
}

/// The last line that is not empty.
std::string LastLine(std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \r\n") + 1);
  return std::string(text.substr(text.find_last_of("\r\n") + 1));
}

std::string HowItEnded(int status, const std::string& words) {
  std::string how;
  if (WIFSIGNALED(status)) {
    const char* const name = sigabbrev_np(WTERMSIG(status));
    how = fmt::format("ended the engine: SIG{}",
                      name != nullptr ? name : std::to_string(WTERMSIG(status)));
  } else if (WEXITSTATUS(status) != 0) {
    how = fmt::format("ended the engine: status {}", WEXITSTATUS(status));
  }
  return how.empty() || words.empty() ? how : how + ": " + words;
}

std::string ReadWhole(int file, const Limits& limits) {
  struct stat status {};
  if (fstat(file, &status) != 0 || status.st_size >> 20 > limits.memory_mib) {
    return "";
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t done = 0;
  for (ssize_t count = 1; count > 0; done += static_cast<std::size_t>(count)) {
    count = std::max<ssize_t>(
        pread(file, text.data() + done, text.size() - done, static_cast<off_t>(done)), 0);
  }
  text.resize(done);
  return text;
}

}  // namespace

std::uint64_t ResidentKib(const std::string& process) {
  std::uint64_t pages = 0;
  std::ifstream statm("/proc/" + process + "/statm");
  statm >> pages >> pages;
  return statm ? pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) / 1024 : 0;
}

ChildResult RunChild(std::vector<std::string> arguments, const Limits& limits) {
  // Not a second pipe: nobody reads it before the end.
  const Descriptor output(memfd_create("output", MFD_CLOEXEC));
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
  Descriptor words(ends[0]);
  Descriptor error(ends[1]);
  fcntl(words, F_SETFL, O_NONBLOCK);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(limits.seconds);
  const pid_t child = Spawn(std::move(arguments), output, error);
  error.Close();

  ChildResult result;
  std::string tail;  // of its standard error
  const auto hear = [&] {
    char buffer[4096];
    ssize_t count = 0;
    while (words >= 0 && (count = read(words, buffer, sizeof buffer)) > 0) {
      tail.append(buffer, static_cast<std::size_t>(count));
      tail.erase(0, tail.size() - std::min(tail.size(), sizeof buffer));
    }
    if (count == 0) {
      words.Close();
    }
  };
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    // Often enough to see an engine that allocates before it has a tenth of a gigabyte more.
    pollfd end{words, POLLIN, 0};
    poll(&end, 1, 10);
    hear();
    if (ResidentKib(std::to_string(child)) / 1024 > static_cast<std::uint64_t>(limits.memory_mib)) {
      result.error = fmt::format("wanted more than {} MiB", limits.memory_mib);
    } else if (Clock::now() > deadline) {
      result.error = fmt::format("took longer than {} s", limits.seconds);
    }
    if (!result.error.empty()) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return result;
    }
  }
  hear();
  result.error = HowItEnded(status, LastLine(tail));
  result.output = ReadWhole(output, limits);
  return result;
}

int EnterChild(int parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {  // the parent had already ended
    std::_Exit(EXIT_FAILURE);
  }
  constexpr rlimit kNone{0, 0};
  setrlimit(RLIMIT_CORE, &kNone);
  std::ofstream("/proc/self/oom_score_adj") << 1000;
  const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  return output;
}

}  // namespace velmora::tool
