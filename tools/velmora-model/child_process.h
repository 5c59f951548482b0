// This program once more, in a process that may be ended by what it does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::tool {

struct Limits {
  int memory_mib;  // resident memory
  int seconds;     // by the clock
};

/// What a process left behind.
struct ChildResult {
  std::string error;   // why it came to no end of its own; empty when it did
  std::string output;  // all that it wrote to the stream that EnterChild() returned
};

/// Runs this program with these arguments and the id of this process behind them, and waits for
/// it. Its output must not be longer than the memory that it may have. Throws std::system_error
/// when it cannot be started.
ChildResult RunChild(std::vector<std::string> arguments, const Limits& limits);

/// What such a process calls first, with that id: it ends with its parent, leaves no core, is the
/// first to go when the machine runs out of memory, and writes to standard error what an engine
/// writes to standard output. Returns the descriptor for its output.
int EnterChild(int parent);

/// Memory that a process holds at this moment, "self" for this one; 0 when it is gone.
std::uint64_t ResidentKib(const std::string& process);

}  // namespace velmora::tool
