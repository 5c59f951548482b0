#include "model.h"

#include <fmt/format.h>

#include <chrono>

#include "common.h"
#include "description.h"

namespace velmora::tool {

using plugin::network::OutputMap;

namespace {

/// A network may run on another size than it was made for, and answers something.
void CheckInput(const Model& model) {
  const InputShape& input = model.engine.input;
  const int channels = model.channels == Channels::kGray ? 1 : 3;
  const auto fits = [](int network, int image) { return network == 0 || network == image; };
  if (fits(input.width, model.size.width) && fits(input.height, model.size.height) &&
      fits(input.channels, channels)) {
    return;
  }
  const auto say = [](int width, int height, int count) {
    const auto number = [](int value) { return value == 0 ? "any" : std::to_string(value); };
    return fmt::format("width {}, height {}, channels {}", number(width), number(height),
                       number(count));
  };
  throw std::runtime_error(
      fmt::format("image: {}, but {} takes {}", say(model.size.width, model.size.height, channels),
                  model.engine.files[0], say(input.width, input.height, input.channels)));
}

/// Whether a network fits its description shows only when it runs: once here, and not as the same
/// complaint about every image. It also spares the first image the time of the engine's set-up.
void TryNetwork(Model* model) {
  CheckInput(*model);
  const int type = model->channels == Channels::kGray ? CV_32FC1 : CV_32FC3;
  double seconds = 0;
  try {
    const std::size_t count =
        Forward(*model, {cv::Mat::zeros(model->size, type)}, &seconds)[0].size();
    while (model->labels.size() < count) {
      model->labels.push_back(std::to_string(model->labels.size()));
    }
  } catch (...) {
    throw std::runtime_error(fmt::format("{}: the network does not fit this description: {}",
                                         model->engine.files[0],
                                         CurrentFault(model->engine.reason)));
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
