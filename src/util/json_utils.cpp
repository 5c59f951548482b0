#include <json/reader.h>
#include <json/writer.h>
#include <reelhouse/json_utils.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <string_view>
#include <utility>

#include "util/file.h"
#include "util/json_file_lock.h"

namespace LibReelhouse {

JsonFileLock::JsonFileLock(LockMode mode, std::string file)
    : path(std::move(file)), fd(-1), locked(false) {
  const int flags = mode == LockMode::Write ? O_RDWR | O_CREAT : O_RDONLY;
  fd = OpenFile(path.c_str(), flags, 0664);
  if (fd >= 0) {
    locked = LockDescriptor(fd, static_cast<int>(mode) + 1) == 0;
  }
}

JsonFileLock::~JsonFileLock() {
  if (locked) {
    flock(fd, LOCK_UN);
  }
  if (fd >= 0) {
    close(fd);
  }
}

namespace {

// Json::Reader and Json::FastWriter are deprecated in favour of builders, which are no faster. They
// stay, because this writer determines the record's form on disk.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// JsonCpp recurses into every level: its own limit of 1000 takes 350 KB of stack, this one 50 KB.
constexpr int kMaxDepth = 100;

/// Whether brackets outside of strings and comments are nested more than kMaxDepth levels deep.
bool IsTooDeep(std::string_view text) {
  int depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view next = text.substr(i, 2);
    if (text[i] == '[' || text[i] == '{') {
      if (++depth > kMaxDepth) {
        return true;
      }
    } else if (text[i] == ']' || text[i] == '}') {
      --depth;
    } else if (text[i] == '"') {
      for (++i; i < text.size() && text[i] != '"'; ++i) {
        i += text[i] == '\\' ? 1 : 0;
      }
    } else if (next == "//") {
      i = std::min(text.find_first_of("\r\n", i), text.size());
    } else if (next == "/*") {
      i = std::min(text.find("*/", i + 2), text.size() - 2) + 1;
    }
  }
  return false;
}

bool ReadJsonFile(const std::string& path, Json::Value& root) {
  const FileDescriptor file(OpenFile(path.c_str(), O_RDONLY, 0));
  if (file.fd < 0) {
    return false;
  }
  bool parsed = false;
  try {
    std::string text;
    Json::Reader reader;
    parsed = ReadAll(file.fd, text) && !IsTooDeep(text) &&
             reader.parse(text.data(), text.data() + text.size(), root, true);
  } catch (const std::exception&) {
    // Out of memory: the document does not parse.
  }
  if (!parsed) {
    syslog(LOG_ERR, "%s:%d Failed to parse json file [%s]", __FILE_NAME__, __LINE__, path.c_str());
    return false;
  }
  return true;
}

// A buffered stream would write a shorter text only when it is closed, after the result is known.
// Callers rely on that result, so a failure to write such a text is not reported.
constexpr std::size_t kBufferedSize = 1024;

bool WriteJsonFile(const std::string& path, const Json::Value& root) {
  const FileDescriptor file(OpenFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
  bool written = false;
  try {
    Json::FastWriter writer;
    const std::string text = writer.write(root);
    written = file.fd >= 0 && (WriteAll(file.fd, text) || text.size() < kBufferedSize);
  } catch (const std::exception&) {
    // Out of memory.
  }
  if (!written) {
    syslog(LOG_ERR, "%s:%d failed to write json file [%s]", __FILE_NAME__, __LINE__, path.c_str());
    return false;
  }
  return true;
}

#pragma GCC diagnostic pop

}  // namespace

bool ReadJsonFromFile(const std::string& path, Json::Value& root) try {
  if (path.empty()) {
    syslog(LOG_ERR, "%s:%d Bad parameter", __FILE_NAME__, __LINE__);
    return false;
  }
  const JsonFileLock lock(LockMode::Read, path);
  return ReadJsonFile(path, root);
} catch (const std::exception&) {
  return false;
}

bool ReadJsonFromFileWithoutLock(const std::string& path, Json::Value& root) {
  if (path.empty()) {
    syslog(LOG_ERR, "%s:%d Bad parameter", __FILE_NAME__, __LINE__);
    return false;
  }
  return ReadJsonFile(path, root);
}

bool WriteJsonToFile(const std::string& path, const Json::Value& root) try {
  if (path.empty()) {
    syslog(LOG_ERR, "%s:%d Bad parameter", __FILE_NAME__, __LINE__);
    return false;
  }
  const JsonFileLock lock(LockMode::Write, path);
  return WriteJsonFile(path, root);
} catch (const std::exception&) {
  return false;
}

bool WriteJsonToFileWithoutLock(const std::string& path, const Json::Value& root) {
  if (path.empty()) {
    syslog(LOG_ERR, "%s:%d Bad parameter", __FILE_NAME__, __LINE__);
    return false;
  }
  return WriteJsonFile(path, root);
}

}  // namespace LibReelhouse
