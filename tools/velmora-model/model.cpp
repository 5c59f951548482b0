#include "model.h"

#include <fmt/format.h>

#include <chrono>

#include "common.h"
#include "description.h"

namespace velmora::tool {

using plugin::network::OutputMap;

namespace {

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

Model LoadModel(const std::string& path, std::optional<Backend> backend) {
  try {
    Model model = ReadDescription(path);
    model.engine = MakeEngine(model.config, backend);
    TryNetwork(&model);
    return model;
  } catch (...) {
    throw ModelError(path + ": " + CurrentFault());
  }
}

std::vector<Model> LoadEveryForm(const std::string& path,
                                 const std::function<void(const std::string&)>& left_out) {
  try {
    std::vector<Model> models;
    for (Engine& engine : MakeEveryEngine(ReadDescription(path).config, left_out)) {
      models.push_back(ReadDescription(path));
      models.back().engine = std::move(engine);
      TryNetwork(&models.back());
    }
    return models;
  } catch (...) {
    throw ModelError(path + ": " + CurrentFault());
  }
}

std::vector<OutputMap> RunNetwork(const Model& model, const std::vector<cv::Mat>& images,
                                  double* seconds) {
  std::vector<OutputMap> outputs;
  const auto start = std::chrono::steady_clock::now();
  // With a batch size above 1, one image alone would come back as a whole batch.
  if (images.size() == 1 && model.config.batch_size <= 1) {
    outputs.push_back(model.engine.network->Forward(images[0]));
  } else {
    outputs = model.engine.network->Forward(images);
  }
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return outputs;
}

std::vector<std::vector<float>> Forward(const Model& model, const std::vector<cv::Mat>& images,
                                        double* seconds) {
  std::vector<std::vector<float>> answers;
  for (OutputMap& output : RunNetwork(model, images, seconds)) {
    const std::string& name = model.engine.outputs[0];
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
