// What the fuzzers share. Linking support.cpp also keeps log lines away from the machine's log.
#pragma once

#include <cstddef>
#include <cstdint>
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

/// Lines written to the log since the last call.
int TakeLogLines();

/// Gives this process an empty /tmp of its own. The working directory stays what it was, also where
/// that lies below /tmp.
void OwnTmp();

}  // namespace velmora::fuzz
