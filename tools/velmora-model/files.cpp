#include "common.h"

#include <sys/stat.h>
#include <unistd.h>
#include <velmora/plugin/network/base_network.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <opencv2/core.hpp>
#include <sstream>
#include <stdexcept>

namespace velmora::tool {

namespace {

std::string Error() {
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
  std::string text(std::filesystem::file_size(path), '\0');  // at once: weights are many bytes
  if (!file.read(text.data(), static_cast<std::streamsize>(text.size()))) {
    throw std::runtime_error("cannot be read");
  }
  return text;
}

std::string Squeeze(const std::string& text) {
  std::istringstream words(text);
  std::string squeezed;
  for (std::string word; words >> word;) {
    squeezed += (squeezed.empty() ? "" : " ") + word;
  }
  return squeezed;
}

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  return true;
}

std::string CurrentError(const std::function<std::string()>& reason) {
  std::string error = Error();
  const std::string why = reason != nullptr ? reason() : "";
  return error.find(why) != std::string::npos ? error : error + ": " + why;
}

}  // namespace velmora::tool
