#include "errors.h"

#include <velmora/plugin/network/base_network.h>

#include <filesystem>
#include <new>
#include <opencv2/core.hpp>
#include <sstream>

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

std::string Squeeze(const std::string& text) {
  std::istringstream words(text);
  std::string squeezed;
  for (std::string word; words >> word;) {
    squeezed += (squeezed.empty() ? "" : " ") + word;
  }
  return squeezed;
}

std::string CurrentError(const std::function<std::string()>& reason) {
  std::string error = Error();
  const std::string why = reason != nullptr ? reason() : "";
  return error.find(why) != std::string::npos ? error : error + ": " + why;
}

}  // namespace velmora::tool
