// Compiled once for each side: the library's backends, and with VELMORA_BY_HAND the same by hand,
// which links one engine and no more.
#include "side.h"

#include <cstdio>
#include <exception>
#include <opencv2/core.hpp>
#include <string>
#include <unordered_map>

#ifdef VELMORA_BY_HAND
#include VELMORA_BY_HAND
#else
#include <velmora/plugin/network/create_network.h>

#include <memory>
#endif

namespace {

using Output = std::unordered_map<std::string, std::vector<float>>;

#ifdef VELMORA_BY_HAND
using Network = ByHand;
#else
/// The library's network, chosen as a host chooses it.
class Network {
 public:
  explicit Network(const Task& task) {
    const std::string name = task.name;
    velmora::plugin::network::NetworkConfig config;
    config.output_names = {"prob"};
    config.VELMORA_ENABLE = true;
    config.dnn_prototxt_path = name + ".prototxt";
    config.dnn_caffemodel_path = name + ".caffemodel";
    config.ie_cpu_xml_path = name + ".xml";
    config.ie_cpu_bin_path = name + ".bin";
    if (std::string(task.device) == "GPU") {
      config.ie_gpu_xml_path = config.ie_cpu_xml_path;
      config.ie_gpu_bin_path = config.ie_cpu_bin_path;
    }
    config.tflite_model_path = name + ".tflite";
    config.batch_size = static_cast<std::uint32_t>(task.batch);
    network_.reset(velmora::plugin::network::CreateNetwork(config));
  }

  std::vector<Output> Forward(const std::vector<cv::Mat>& images) {
    return network_->Forward(images);
  }

 private:
  std::unique_ptr<velmora::plugin::network::BaseNetwork> network_;
};
#endif

class Loaded : public Side {
 public:
  explicit Loaded(const Task& task)
      : network_(task), images_(static_cast<std::size_t>(task.batch)) {
    cv::RNG random(1);
    for (cv::Mat& image : images_) {
      image.create(task.height, task.width, CV_32FC3);
      random.fill(image, cv::RNG::UNIFORM, -1, 1);
    }
  }

  void Forward() override { outputs_ = network_.Forward(images_); }

  std::vector<float> Answers() const override {
    std::vector<float> all;
    for (const Output& output : outputs_) {
      const std::vector<float>& answers = output.begin()->second;
      all.insert(all.end(), answers.begin(), answers.end());
    }
    return all;
  }

 private:
  Network network_;
  std::vector<cv::Mat> images_;
  std::vector<Output> outputs_;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Side* Load(const Task& task) {
  try {
    return new Loaded(task);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "%s\n", exception.what());
  } catch (...) {
    std::fputs("the network could not be loaded\n", stderr);
  }
  return nullptr;
}
