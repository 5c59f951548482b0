#include "support.h"

#include <sanitizer/asan_interface.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace velmora::fuzz {
namespace {

int log_lines = 0;

// libFuzzer reads these as it reads the counters of instrumented code.
[[gnu::section("__libfuzzer_extra_counters")]] std::uint8_t outcomes[1 << 12];

/// How a child that loads and runs a model ended, which is its exit status where it has one.
enum End : unsigned { kRan = 2, kFailed, kTooMuchMemory, kTooLong, kEndedAsDocumented, kCrashed };
bool is_child = false;

/// How often each was, printed at exit.
struct Tally {
  unsigned long counts[kCrashed + 1] = {};
  ~Tally() {
    if (counts[kRan] + counts[kFailed] + counts[kEndedAsDocumented] != 0 && !is_child) {
      std::fprintf(stderr,
                   "MODELS %lu ran, %lu failed with an exception, %lu out of memory, %lu out of "
                   "time, %lu ended as documented, %lu crashed otherwise\n",
                   counts[kRan], counts[kFailed], counts[kTooMuchMemory], counts[kTooLong],
                   counts[kEndedAsDocumented], counts[kCrashed]);
    }
  }
} tally;

[[noreturn]] void RunAsChild(const std::function<void()>& run) {
  is_child = true;
  // Neither libFuzzer nor the sanitizer is to take the end of this process for the search's.
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) {
    std::signal(signal, SIG_DFL);
  }
  __sanitizer_set_death_callback(nullptr);
  // On top of what the sanitizer has reserved.
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t{4} << 30);
  const rlimit memory = {limit, limit};
  setrlimit(RLIMIT_AS, &memory);
  alarm(10);
  try {
    run();
  } catch (...) {
    _exit(kFailed);
  }
  _exit(kRan);
}

}  // namespace

MemoryFile::MemoryFile()
    : fd_(memfd_create("fuzz", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {}

MemoryFile::~MemoryFile() { close(fd_); }

void MemoryFile::Set(const std::uint8_t* data, std::size_t size) const {
  Require(ftruncate(fd_, 0) == 0 && pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size),
          "a file in memory");
}

void MemoryFile::Become(int descriptor) const {
  Require(lseek(fd_, 0, SEEK_SET) == 0 && dup2(fd_, descriptor) == descriptor,
          "a file in the place of a descriptor");
}

std::string Text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

void NoteOutcome(unsigned outcome) { outcomes[outcome % sizeof outcomes] = 1; }

unsigned RunModel(const std::function<void()>& run, const std::function<bool()>& is_left) {
  static const MemoryFile printed;
  printed.Set(nullptr, 0);
  const pid_t child = fork();
  if (child == 0) {
    printed.Become(STDERR_FILENO);
    RunAsChild(run);
  }
  int status = 0;
  pid_t ended = -1;
  do {  // libFuzzer has a clock of its own
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  Require(ended == child, "a child process");
  unsigned end = kEndedAsDocumented;
  if (WIFEXITED(status) && WEXITSTATUS(status) >= kRan && WEXITSTATUS(status) <= kTooMuchMemory) {
    end = static_cast<unsigned>(WEXITSTATUS(status));
  } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
    end = kTooLong;
  } else if (WIFSIGNALED(status) && std::getenv("CI") != nullptr && !is_left()) {
    end = kCrashed;  // in an engine: a sanitizer, which our code has, ends the child by itself
  } else if (!is_left()) {
    std::fprintf(stderr, "%s\n%s\n", Text(printed.path()).c_str(),
                 WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "ended by a sanitizer");
    Require(false, "a model that is not refused runs, or fails with an exception");
  }
  ++tally.counts[end];
  return end;
}

int TakeLogLines() {
  const int lines = log_lines;
  log_lines = 0;
  return lines;
}

void OwnTmp() {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  if (unshare(CLONE_NEWNS) != 0) {
    Require(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "a mount namespace of its own");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
  Require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              mount("none", "/tmp", "tmpfs", 0, nullptr) == 0,
          "an empty /tmp");
}

}  // namespace velmora::fuzz

/// In the place of the C library's: formats the line, as that would, and counts it.
extern "C" void syslog(int /*priority*/, const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  ++velmora::fuzz::log_lines;
}

/// Engines take what a model says of its sizes to the allocator. Some go by the answer, others end
/// the process, which is not told from an error of another kind: here the allocation ends it.
extern "C" const char* __asan_default_options() {
  // A small quarantine, because a child begins with a copy of the tables of all pages.
  return "max_allocation_size_mb=1000:quarantine_size_mb=16";
}

extern "C" void __asan_on_error() {
  const char* const what = __asan_get_report_description();
  if (velmora::fuzz::is_child && what != nullptr &&
      (std::strstr(what, "out-of-memory") != nullptr || std::strstr(what, "-too-big") != nullptr)) {
    _exit(velmora::fuzz::kTooMuchMemory);
  }
}

/// OpenCV forgets a blob when it refuses a model half-way, and TensorFlow Lite keeps one byte.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libopencv_dnn.so\nleak:libjnitensorflowlite.so";
}
