// Compiled once for each side that memory-host compares: the library's backends, and with
// VELMORA_BY_HAND the same by hand, which links one engine and no more.
#include "memory_module.h"

#include <cstdio>
#include <exception>
#include <opencv2/core.hpp>
#include <string>

#ifdef VELMORA_BY_HAND
#include VELMORA_BY_HAND
#else
#include <velmora/plugin/network/create_network.h>

#include <memory>
#endif

namespace {

#ifdef VELMORA_BY_HAND
using Side = ByHand;
#else
/// The library's network, chosen as a host chooses it.
class Side {
 public:
  explicit Side(const std::string& name) {
    velmora::plugin::network::NetworkConfig config;
    config.output_names = {"prob"};
    config.VELMORA_ENABLE = true;
    config.dnn_prototxt_path = name + ".prototxt";
    config.dnn_caffemodel_path = name + ".caffemodel";
    config.ie_cpu_xml_path = name + ".xml";
    config.ie_cpu_bin_path = name + ".bin";
    config.tflite_model_path = name + ".tflite";
    config.batch_size = 1;
    network_.reset(velmora::plugin::network::CreateNetwork(config));
  }

  void Forward(const cv::Mat& image) { network_->Forward(image); }

 private:
  std::unique_ptr<velmora::plugin::network::BaseNetwork> network_;
};
#endif

class Network : public Loaded {
 public:
  explicit Network(const char* name) : network_(name) {}
  void Forward() override { network_.Forward({image_}); }

 private:
  Side network_;
  cv::Mat image_ = cv::Mat::ones(224, 224, CV_32FC3);
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Loaded* Load(const char* name) {
  try {
    return new Network(name);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "%s\n", exception.what());
  } catch (...) {
    std::fputs("the network could not be loaded\n", stderr);
  }
  return nullptr;
}
