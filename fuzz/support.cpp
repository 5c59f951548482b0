#include "support.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace velmora::fuzz {
namespace {

int log_lines = 0;

// libFuzzer reads these as it reads the counters of instrumented code.
[[gnu::section("__libfuzzer_extra_counters")]] std::uint8_t outcomes[1 << 12];

}  // namespace

MemoryFile::MemoryFile()
    : fd_(memfd_create("fuzz", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {}

MemoryFile::~MemoryFile() { close(fd_); }

void MemoryFile::Set(const std::uint8_t* data, std::size_t size) const {
  Require(ftruncate(fd_, 0) == 0 && pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size),
          "a file in memory");
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

/// OpenCV takes what a model says of its sizes to the allocator, and goes by the answer.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

/// OpenCV forgets a blob when it refuses a model half-way, and TensorFlow Lite keeps one byte.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libopencv_dnn.so\nleak:libjnitensorflowlite.so";
}
