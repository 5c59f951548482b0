// A device "GPU" for machines without one: OpenVINO's CPU plug-in under that name. It cannot be
// made while the environment variable VELMORA_TEST_GPU_FAILS is set.
#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

namespace ov {

// Exported by libopenvino, but declared in none of the headers that come with it.
class IPlugin {
 public:
  void set_device_name(const std::string& name);
};

}  // namespace ov

extern "C" __attribute__((visibility("default"))) void create_plugin_engine(
    std::shared_ptr<ov::IPlugin>& plugin) {
  if (std::getenv("VELMORA_TEST_GPU_FAILS") != nullptr) {
    throw std::runtime_error("the GPU fails, as it was told to");
  }
  void* const cpu = dlopen("libopenvino_intel_cpu_plugin.so", RTLD_NOW);
  if (cpu == nullptr) {
    throw std::runtime_error(dlerror());
  }
  using Create = void (*)(std::shared_ptr<ov::IPlugin>&);
  reinterpret_cast<Create>(dlsym(cpu, "create_plugin_engine"))(plugin);
  plugin->set_device_name("GPU");
}
