#include "velmora-plugin-platform/platform.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace velmora::plugin::platform {

namespace {

/// Whether a DRM device node belongs to an Intel PCI device.
bool IsIntelGpu(const std::filesystem::path& node) {
  std::ifstream file("/sys/class/drm" / node.filename() / "device/vendor");
  std::string vendor;
  return file >> vendor && vendor == "0x8086";
}

}  // namespace

bool IsSupportedIENetwork() {
#if !VELMORA_HAS_INFERENCE_ENGINE
  return false;
#elif defined(__x86_64__)
  return static_cast<bool>(__builtin_cpu_supports("sse4.2"));
#else
  return true;
#endif
}

bool IsSupportedTFLiteNetwork() { return VELMORA_HAS_TENSORFLOW_LITE != 0; }

bool IsSupportedIENetworkGpu() try {
  if (!IsSupportedIENetwork()) {
    return false;
  }
  std::error_code error;
  for (std::filesystem::directory_iterator node("/dev/dri", error), end; !error && node != end;
       node.increment(error)) {
    if (node->path().filename().string().starts_with("renderD") &&
        access(node->path().c_str(), R_OK | W_OK) == 0 && IsIntelGpu(node->path())) {
      return true;
    }
  }
  return false;
} catch (const std::exception&) {
  return false;  // out of memory
}

}  // namespace velmora::plugin::platform
