// A machine of the test's own. The library velmora-test-machine stands before the system's: what
// the library under test and the engines look for below the appliance's absolute paths is looked
// for in a temporary folder, what they log is kept, and which engines the machine supports is what
// VELMORA_TEST_PLATFORM names, such as "ie gpu". Programs are run with it through LD_PRELOAD.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora::test {

/// Where an absolute path of the appliance's is on this machine; its folder is made. Of the paths
/// below /proc none is moved before one of them was asked for here.
std::string Place(const std::string& path);

/// The same, with a file of this text in it.
std::string PlaceFile(const std::string& path, const std::string& text);

/// Empties the machine, makes a new folder on it the working directory, and forgets what was logged
/// and asked.
void NewMachine();

struct LogLine {
  int priority;  // as given to syslog()
  std::string text;
};

/// The lines that were logged since the last call, by this process and its children.
std::vector<LogLine> TakeLog();

/// What this process asked the platform library since the last call, in order, with blanks between;
/// behind "gpu" the list of OpenCL drivers that was set then.
std::string TakeQuestions();

/// Nanoseconds at which the monotonic clock of this process stands; 0 for the real one.
extern std::int64_t clock_at;

/// Called once, when this process's first thread reads that clock next.
extern std::function<void()> when_the_clock_is_read;

}  // namespace velmora::test
