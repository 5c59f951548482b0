// Compiled once for each side: the library's backends, and with VELMORA_BY_HAND the same by hand,
// which links one engine and no more.
#include "side.h"

#include <memory>
#include <opencv2/core.hpp>

#ifdef VELMORA_BY_HAND
#include VELMORA_BY_HAND
#else
#include <velmora/plugin/network/create_network.h>
#endif

namespace {

#ifdef VELMORA_BY_HAND
std::unique_ptr<ByHand> MakeNetwork(const Task& task) { return std::make_unique<ByHand>(task); }
#else
/// The library's network, chosen as a host chooses it.
std::unique_ptr<velmora::plugin::network::BaseNetwork> MakeNetwork(const Task& task) {
  velmora::plugin::network::NetworkConfig config;
  config.output_names = {"prob"};
  config.VELMORA_ENABLE = true;
  config.dnn_prototxt_path = task.name + ".prototxt";
  config.dnn_caffemodel_path = task.name + ".caffemodel";
  config.ie_cpu_xml_path = task.name + ".xml";
  config.ie_cpu_bin_path = task.name + ".bin";
  if (task.device == "GPU") {
    config.ie_gpu_xml_path = config.ie_cpu_xml_path;
    config.ie_gpu_bin_path = config.ie_cpu_bin_path;
  }
  config.tflite_model_path = task.name + ".tflite";
  config.batch_size = static_cast<std::uint32_t>(task.batch);
  return std::unique_ptr<velmora::plugin::network::BaseNetwork>(CreateNetwork(config));
}
#endif

class Loaded : public Side {
 public:
  explicit Loaded(const Task& task)
      : network_(MakeNetwork(task)), images_(static_cast<std::size_t>(task.batch)) {
    cv::RNG random(1);
    for (cv::Mat& image : images_) {
      image.create(task.height, task.width, CV_32FC3);
      random.fill(image, cv::RNG::UNIFORM, -1, 1);
    }
  }

  void Forward() override { outputs_ = network_->Forward(images_); }

  std::vector<float> Answers() const override {
    std::vector<float> all;
    for (const Output& output : outputs_) {
      const std::vector<float>& answers = output.begin()->second;
      all.insert(all.end(), answers.begin(), answers.end());
    }
    return all;
  }

 private:
  decltype(MakeNetwork({})) network_;
  std::vector<cv::Mat> images_;
  std::vector<Output> outputs_;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Side* Load(const Task& task) {
  return new Loaded(task);
}
