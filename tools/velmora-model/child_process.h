// Runs this program in another process, which may crash.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::tool {

struct Limits {
  int memory_mib;  // resident memory
  int seconds;     // by the clock
};

/// What is left of a child process.
struct ChildResult {
  std::string error;   // why it did not exit with status 0; empty if it did
  std::string output;  // all that it wrote to the stream that EnterChild() returned
};

/// Runs this program with these arguments, followed by the id of this process, and waits for it.
/// Its output must not be longer than the memory that it may have. Throws std::system_error if it
/// cannot be started.
ChildResult RunChild(std::vector<std::string> arguments, const Limits& limits);

/// To be called first by such a process, with that id: the process ends with its parent, leaves no
/// core, is the first to be killed when the machine runs out of memory, and what an engine prints
/// on standard output goes to standard error. Returns the descriptor for its output.
int EnterChild(int parent);

/// Resident memory of a process, "self" for this one; 0 if it has ended.
std::uint64_t ResidentKib(const std::string& process);

}  // namespace velmora::tool
