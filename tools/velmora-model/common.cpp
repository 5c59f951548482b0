#include "common.h"

#include <fmt/format.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <velmora/plugin/network/base_network.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <opencv2/core.hpp>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace velmora::tool {

namespace {

struct Character {
  std::string_view bytes;
  bool valid = false;  // UTF-8; other bytes are taken one by one
  int width = -1;      // columns; -1 for a character that is not printed
};

/// Takes the first character off the text.
Character TakeCharacter(std::string_view* text) {
  std::mbstate_t state{};
  wchar_t code = 0;
  std::size_t length = std::mbrtowc(&code, text->data(), text->size(), &state);
  const bool valid = length <= text->size();  // the values for faults are the greatest there are
  length = valid ? std::max<std::size_t>(length, 1) : 1;
  const Character character{text->substr(0, length), valid, code != 0 ? wcwidth(code) : -1};
  text->remove_prefix(length);
  return character;
}

/// All white space as single blanks: engines write their messages over several lines.
std::string Squeeze(const std::string& text) {
  std::istringstream words(text);
  std::string squeezed;
  for (std::string word; words >> word;) {
    squeezed += (squeezed.empty() ? "" : " ") + word;
  }
  return squeezed;
}

}  // namespace

void CheckReadable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("is not a regular file");
  }
  if (status.st_size == 0) {
    throw std::runtime_error("the file is empty");
  }
}

std::string ReadFile(const std::string& path) {
  CheckReadable(path);
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file || file.bad()) {
    throw std::runtime_error("cannot be read");
  }
  return text;
}

std::string CurrentFault() {
  try {
    throw;
  } catch (const plugin::network::Exception& exception) {
    return exception.message;
  } catch (const cv::Exception& exception) {
    const bool assertion = exception.code == cv::Error::StsAssert;
    return Squeeze((assertion ? "OpenCV: failed assertion " : "OpenCV: ") + exception.err);
  } catch (const std::filesystem::filesystem_error& error) {
    return error.code().message();
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  } catch (const std::exception& exception) {
    return Squeeze(exception.what());
  } catch (...) {
    return "unknown failure";
  }
}

std::string OneLine(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const Character character = TakeCharacter(&text);
    if (character.valid && character.width >= 0) {
      line += character.bytes;
    } else if (character.bytes == "\n") {
      line += "\\n";
    } else {
      for (const char byte : character.bytes) {
        line += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
      }
    }
  }
  return line;
}

int Width(std::string_view text) {
  int width = 0;
  while (!text.empty()) {
    width += std::max(TakeCharacter(&text).width, 0);
  }
  return width;
}

std::string KeepEnd(std::string_view path, int width) {
  if (Width(path) <= width) {
    return std::string(path);
  }
  while (Width(path) > width - 1) {
    TakeCharacter(&path);
  }
  return "…" + std::string(path);
}

int TerminalWidth(int descriptor) {
  winsize size{};
  if (isatty(descriptor) == 0) {
    return 0;
  }
  return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

void FlushOutput() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

void PrintJson(const Json::Value& document) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  builder["precision"] = 9;  // all that a float holds
  Print(Json::writeString(builder, document) + "\n");
}

std::string JsonText(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Character character = TakeCharacter(&text);
    result += character.valid ? character.bytes : "\uFFFD";
  }
  return result;
}

pid_t StartProcess(std::vector<std::string> command, const sigset_t& blocked) {
  std::vector<char*> arguments;
  for (std::string& word : command) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigmask(&attributes, &blocked);
  pid_t child = -1;
  const int error =
      posix_spawnp(&child, arguments[0], nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  return error == 0 ? child : -error;
}

void Console::Fault(std::string_view subject, std::string_view fault) {
  any_fault_ = true;
  Say(fmt::format("{}: {}", subject, fault));
}

void Console::Say(std::string_view text) {
  ClearProgress();
  fmt::print(stderr, "velmora-model: {}\n", OneLine(text));
}

void Console::ShowProgress(std::size_t done, std::size_t total) {
  const Clock::time_point now = Clock::now();
  const char* const terminal = std::getenv("TERM");
  if (now < next_draw_ || terminal == nullptr || std::string_view(terminal) == "dumb") {
    return;
  }
  next_draw_ = now + std::chrono::milliseconds(100);
  const std::string counts = fmt::format(" {} of {}", done, total);
  const int room = std::min(TerminalWidth(STDERR_FILENO) - 3 - Width(counts), 40);
  if (room < 1) {
    return;
  }
  const auto size = static_cast<std::size_t>(room);
  const std::string filled(size * done / total, '#');
  fmt::print(stderr, "\r[{:.<{}}]{}\x1b[K", filled, size, counts);
  bar_shown_ = true;
}

void Console::ClearProgress() {
  if (bar_shown_) {
    fmt::print(stderr, "\r\x1b[K");
    bar_shown_ = false;
  }
}

}  // namespace velmora::tool
