#include "support/machine.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

namespace fs = std::filesystem;

namespace {

/// The folder, which programs that a test runs find in the environment.
class Root {
 public:
  Root() {
    const char* const given = std::getenv("VELMORA_TEST_MACHINE");
    if (given == nullptr) {
      path_ = fs::temp_directory_path() / "velmora-test-XXXXXX";
      if (mkdtemp(path_.data()) == nullptr) {
        std::perror(path_.c_str());
        std::abort();
      }
      fs::permissions(path_, fs::perms(0755));  // tests have other users
      setenv("VELMORA_TEST_MACHINE", path_.c_str(), 1);
      maker_ = getpid();
    } else {
      path_ = given;
    }
    log_ = open((path_ + "/log").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  }
  ~Root() {
    std::error_code ignored;
    if (getpid() == maker_) {
      fs::remove_all(path_, ignored);
    }
  }
  const std::string& path() const { return path_; }
  int log() const { return log_; }

 private:
  std::string path_;
  pid_t maker_ = -1;
  int log_;
} root;  // until it is made, nothing is moved

/// Where a path is. Allocates nothing: one of the tests lets allocations fail.
class Moved {
 public:
  explicit Moved(const char* path) : path_(path) {
    constexpr std::string_view appliance[] = {
        "/tmp/Reelhouse",        "/etc.defaults/", "/var/packages",      "/run/tmp/factory/",
        "/usr/lib/firmware/rtd", "/proc/cpuinfo",  "/proc/karv_platform"};
    for (const std::string_view begin : appliance) {
      if (std::string_view(path).starts_with(begin) && !root.path().empty()) {
        std::snprintf(moved_, sizeof moved_, "%s/proc", root.path().c_str());
        if (!begin.starts_with("/proc") || faccessat(AT_FDCWD, moved_, F_OK, 0) == 0) {
          std::snprintf(moved_, sizeof moved_, "%s%s", root.path().c_str(), path);
          path_ = moved_;
        }
      }
    }
  }
  operator const char*() const { return path_; }

 private:
  const char* path_;
  char moved_[PATH_MAX];
};

// Times the machine's own; by VELMORA_TEST_SPEED.
const long speed =
    std::getenv("VELMORA_TEST_SPEED") == nullptr ? 1 : std::atol(std::getenv("VELMORA_TEST_SPEED"));

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Write(int priority, const char* format, va_list arguments) {
  char text[16384];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::string line = std::to_string(priority) + ' ' + text;
  static_cast<void>(!write(root.log(), line.c_str(), line.size() + 1));  // the zero ends the line
}

}  // namespace

#pragma GCC visibility push(default)

namespace velmora {

std::int64_t test::clock_at = 0;
std::function<void()> test::when_the_clock_is_read;

std::string test::Place(const std::string& path) {
  fs::create_directories(root.path() + fs::path(path).parent_path().string());
  return root.path() + path;
}

std::string test::PlaceFile(const std::string& path, const std::string& text) {
  std::ofstream(Place(path)) << text;
  return Place(path);
}

void test::NewMachine() {
  for (const fs::path& entry : std::vector<fs::path>(fs::directory_iterator(root.path()), {})) {
    if (entry.filename() != "log") {
      fs::remove_all(entry);
    }
  }
  for (const char* const folder : {"/test", "/tmp", "/var"}) {
    fs::create_directory(root.path() + folder);
  }
  fs::current_path(root.path() + "/test");
  TakeLog();
  TakeQuestions();
}

std::vector<test::LogLine> test::TakeLog() {
  std::vector<LogLine> lines;
  std::ifstream file(root.path() + "/log");
  for (std::string line; std::getline(file, line, '\0');) {
    lines.push_back({std::stoi(line), line.substr(line.find(' ') + 1)});
  }
  static_cast<void>(!ftruncate(root.log(), 0));
  return lines;
}

namespace {

std::string questions;

bool Answer(const std::string& engine) {
  questions += (questions.empty() ? "" : " ") + engine;
  const char* const supported = std::getenv("VELMORA_TEST_PLATFORM");
  return supported != nullptr &&
         (" " + std::string(supported) + " ").find(" " + engine + " ") != std::string::npos;
}

}  // namespace

std::string test::TakeQuestions() { return std::exchange(questions, {}); }

namespace plugin::platform {

bool IsSupportedIENetwork() { return Answer("ie"); }
bool IsSupportedTFLiteNetwork() { return Answer("tflite"); }
bool IsSupportedIENetworkGpu() {
  const char* const drivers = std::getenv("OCL_ICD_VENDORS");
  const bool answer = Answer("gpu");
  questions += drivers == nullptr ? "" : " " + std::string(drivers);
  return answer;
}

}  // namespace plugin::platform
}  // namespace velmora

// The functions by which the library, the engines and their C++ libraries reach files.
#define MOVE(result, name, parameters, ...)                   \
  result name parameters {                                    \
    static auto* const next = Next<result parameters>(#name); \
    return next(__VA_ARGS__);                                 \
  }
#define MOVE_OPEN(name)                                                    \
  int name(const char* path, int flags, ...) {                             \
    static auto* const next = Next<int(const char*, int, ...)>(#name);     \
    va_list more;                                                          \
    va_start(more, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0; \
    va_end(more);                                                          \
    return next(Moved(path), flags, mode);                                 \
  }

extern "C" {

MOVE_OPEN(open)
MOVE_OPEN(open64)
MOVE(int, __open_2, (const char* path, int flags), Moved(path), flags)
MOVE(FILE*, fopen, (const char* path, const char* mode), Moved(path), mode)
MOVE(FILE*, fopen64, (const char* path, const char* mode), Moved(path), mode)
MOVE(int, stat, (const char* path, struct stat* status) noexcept, Moved(path), status)
MOVE(int, __xstat, (int version, const char* path, struct stat* status) noexcept, version,
     Moved(path), status)
MOVE(int, __lxstat, (int version, const char* path, struct stat* status) noexcept, version,
     Moved(path), status)
MOVE(int, faccessat, (int folder, const char* path, int mode, int flags) noexcept, folder,
     Moved(path), mode, flags)
MOVE(int, chmod, (const char* path, mode_t mode) noexcept, Moved(path), mode)
MOVE(int, fchmodat, (int folder, const char* path, mode_t mode, int flags) noexcept, folder,
     Moved(path), mode, flags)
MOVE(int, mkdir, (const char* path, mode_t mode) noexcept, Moved(path), mode)
MOVE(int, remove, (const char* path) noexcept, Moved(path))
MOVE(char*, realpath, (const char* path, char* resolved) noexcept, Moved(path), resolved)
MOVE(int, posix_spawn,
     (pid_t * process, const char* path, const posix_spawn_file_actions_t* actions,
      const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment),
     process, Moved(path), actions, attributes, arguments, environment)

// Time passes VELMORA_TEST_SPEED times as fast, or stands. What waits for a point in time and is
// not below waits longer, by the machine's own clock.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  using velmora::test::clock_at, velmora::test::when_the_clock_is_read;
  const long result = syscall(SYS_clock_gettime, clock, time);
  if (clock == CLOCK_MONOTONIC && (speed > 1 || clock_at != 0)) {
    if (when_the_clock_is_read && gettid() == getpid()) {
      std::exchange(when_the_clock_is_read, nullptr)();
    }
    const long now = (time->tv_sec * 1'000'000'000 + time->tv_nsec) * speed;
    const long told = clock_at != 0 ? clock_at : now;
    *time = {told / 1'000'000'000, told % 1'000'000'000};
  }
  return static_cast<int>(result);
}

int nanosleep(const timespec* time, timespec* left) {
  static auto* const next = Next<int(const timespec*, timespec*)>("nanosleep");
  const long slow = (time->tv_sec * 1'000'000'000 + time->tv_nsec) / speed;
  const timespec shorter = {slow / 1'000'000'000, slow % 1'000'000'000};
  return next(&shorter, left);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Write(priority, format, arguments);
  va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Write(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
