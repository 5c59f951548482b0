#include "model.h"

#include <fmt/ranges.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>

#include <chrono>

#include "common.h"
#include "description.h"

namespace velmora::tool {

namespace {

using plugin::network::NetworkConfig;

/// What a backend needs of a description: files, each group of which has to be there whole.
std::vector<std::string> FilesOf(const NetworkConfig& config, Backend backend) {
  if (backend == Backend::kIe) {
    if (config.ie_cpu_xml_path.empty() || config.ie_cpu_bin_path.empty()) {
      throw std::runtime_error("network needs ie_cpu_xml_path and ie_cpu_bin_path");
    }
    return {config.ie_cpu_xml_path, config.ie_cpu_bin_path};
  }
  if (!config.enable_dnn) {
    throw std::runtime_error("network.enable_dnn is not true: name another engine by --backend");
  }
  if (!config.dnn_binary_path.empty()) {
    return {config.dnn_binary_path};
  }
  if (config.dnn_prototxt_path.empty() || config.dnn_caffemodel_path.empty()) {
    throw std::runtime_error(
        "network needs dnn_binary_path, or dnn_prototxt_path and dnn_caffemodel_path");
  }
  return {config.dnn_prototxt_path, config.dnn_caffemodel_path};
}

/// The one place that knows the backends.
void MakeNetwork(Backend backend, Model* model) {
  const NetworkConfig& config = model->config;
  const std::vector<std::string> paths = FilesOf(config, backend);
  std::string at_fault;
  try {
    for (const std::string& path : paths) {
      at_fault = path;
      CheckReadable(path);
    }
    at_fault = fmt::format("{}", fmt::join(paths, ", "));
    if (backend == Backend::kIe) {
      auto network = std::make_unique<plugin::network::IeNetwork>(config);
      model->engine = fmt::format("Inference Engine (OpenVINO {})", VELMORA_OPENVINO_VERSION);
      model->device = [network = network.get()] { return network->GetDevice(); };
      model->network = std::move(network);
    } else {
      model->network = std::make_unique<plugin::network::DnnNetwork>(config);
      model->engine = fmt::format("OpenCV dnn {}", cv::getVersionString());
    }
  } catch (...) {
    throw std::runtime_error(at_fault + ": " + CurrentFault());
  }
}

/// Whether a network fits its description shows only when it runs: once here, and not as the same
/// complaint about every image. It also spares the first image the time of the engine's set-up.
void TryNetwork(Model* model) {
  const int type = model->channels == Channels::kGray ? CV_32FC1 : CV_32FC3;
  double seconds = 0;
  try {
    const std::size_t count =
        Forward(*model, {cv::Mat::zeros(model->size, type)}, &seconds)[0].size();
    while (model->labels.size() < count) {
      model->labels.push_back(std::to_string(model->labels.size()));
    }
  } catch (...) {
    throw std::runtime_error("the network does not fit this description: " + CurrentFault());
  }
}

}  // namespace

Model LoadModel(const std::string& path, Backend backend) {
  try {
    Model model = ReadDescription(path);
    MakeNetwork(backend, &model);
    TryNetwork(&model);
    return model;
  } catch (...) {
    throw ModelError(path + ": " + CurrentFault());
  }
}

std::vector<std::vector<float>> Forward(const Model& model, const std::vector<cv::Mat>& images,
                                        double* seconds) {
  std::vector<plugin::network::OutputMap> outputs;
  const auto start = std::chrono::steady_clock::now();
  // With a batch size above 1, one image alone would come back as a whole batch.
  if (images.size() == 1 && model.config.batch_size <= 1) {
    outputs.push_back(model.network->Forward(images[0]));
  } else {
    outputs = model.network->Forward(images);
  }
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  std::vector<std::vector<float>> answers;
  for (plugin::network::OutputMap& output : outputs) {
    const std::string& name = model.config.output_names[0];
    const std::size_t count = output[name].size();
    if (count == 0 || (!model.labels.empty() && count != model.labels.size())) {
      throw std::runtime_error(fmt::format("output \"{}\" has {} values, and there are {} labels",
                                           name, count, model.labels.size()));
    }
    answers.push_back(std::move(output[name]));
  }
  return answers;
}

}  // namespace velmora::tool
