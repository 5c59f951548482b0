// What the fuzzers share. Linking support.cpp also keeps log lines away from the machine's log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace velmora::fuzz {

/// A file in memory.
class MemoryFile {
 public:
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const std::string& path() const { return path_; }
  void Set(const std::uint8_t* data, std::size_t size) const;
  /// Puts the file in the place of one of the process's descriptors.
  void Become(int descriptor) const;

 private:
  int fd_;
  std::string path_;
};

std::string Text(const std::string& path);

/// Ends the process, and with it the search, unless `holds`.
void Require(bool holds, const char* what);

/// Tells the search of an outcome that is new to it, where the code that makes the difference is in
/// a library without coverage.
void NoteOutcome(unsigned outcome);

/// Loads and runs a model in a child process, which has 4 GB of memory, no single allocation beyond
/// 1 GB, and 10 seconds. Ends the search when the child is ended by anything else, unless
/// `is_left`: docs/hostile-models.md says of such a model that it can end the process. How the
/// children ended is counted, and printed when the search is over. Returns a number for
/// NoteOutcome, below 8.
unsigned RunModel(const std::function<void()>& run, const std::function<bool()>& is_left);

/// Lines written to the log since the last call.
int TakeLogLines();

/// Gives this process an empty /tmp of its own. The working directory stays what it was, also where
/// that lies below /tmp.
void OwnTmp();

}  // namespace velmora::fuzz
