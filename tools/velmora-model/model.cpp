#include "model.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>

#include "common/text.h"
#include "errors.h"

namespace velmora::tool {

using plugin::network::OutputMap;

namespace {

/// A network may run on images of a wrong size and give meaningless answers.
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

/// A network without labels may be a detector, whose outputs are no probabilities.
void CheckUnlabelled(const Model& model, const cv::Mat& image, const std::vector<float>& values) {
  std::string why = WhyNoProbabilities(model, values);
  if (why.empty() && std::abs(std::accumulate(values.begin(), values.end(), -1.0)) > 0.01) {
    OutputShapes shapes = model.engine.output_shapes(image);
    const std::vector<std::size_t>& shape = shapes[model.engine.outputs[0]];
    if (std::count_if(shape.begin(), shape.end(), [](std::size_t size) { return size > 1; }) > 1) {
      why =
          fmt::format("the values of output \"{}\" are {}, and not one probability for each label",
                      model.engine.outputs[0], fmt::join(shape, " x "));
    }
  }
  if (!why.empty()) {
    throw std::runtime_error(
        why + "; \"velmora-model outputs\" shows them, and with labels they are ranked");
  }
}

/// Whether a network fits its description shows only when it runs. Running it once here makes that
/// one error instead of one for each image, and warms the engine up.
void TryNetwork(Model* model, Use use) {
  CheckInput(*model);
  const int type = model->channels == Channels::kGray ? CV_32FC1 : CV_32FC3;
  const cv::Mat image = cv::Mat::zeros(model->size, type);
  double seconds = 0;
  try {
    OutputMap outputs = RunNetwork(*model, {image}, &seconds)[0];
    const std::vector<float>& answer = outputs[model->engine.outputs[0]];
    const std::size_t count = answer.size();
    model->labelled = !model->labels.empty();
    if (use == Use::kProbabilities && !model->labelled) {
      CheckUnlabelled(*model, image, answer);
    }
    if (use != Use::kAny && (use != Use::kAnswerToLabels || model->labelled)) {
      while (!model->labelled && model->labels.size() < count) {
        model->labels.push_back(std::to_string(model->labels.size()));
      }
      AnswerOf(*model, outputs);
    }
    if (model->engine.backend == Backend::kTfLite) {
      const std::size_t holds = Product(model->engine.output_shapes(image)["output"]);
      if (holds > count) {
        model->warning = fmt::format(
            "{}: the first output holds {} values, of which TensorFlow Lite hands over {}: as many "
            "as its second dimension says",
            model->engine.files[0], holds, count);
      }
    }
  } catch (...) {
    throw std::runtime_error(fmt::format("{}: the network does not fit this description: {}",
                                         model->engine.files[0],
                                         CurrentError(model->engine.reason)));
  }
}

/// Calls `load`; errors become ModelErrors that begin with the path.
template <typename Load>
auto NamingFile(const std::string& path, Load load) {
  try {
    return load();
  } catch (...) {
    throw ModelError(path + ": " + CurrentError());
  }
}

template <typename MakeNetwork>
Model Load(const std::string& path, Use use, MakeNetwork make) {
  return NamingFile(path, [&] {
    Model model = ReadDescription(path);
    model.engine = make(model.config);
    TryNetwork(&model, use);
    return model;
  });
}

}  // namespace

void SayWarning(const Model& model, Console* console) {
  if (!model.warning.empty()) {
    console->Say("warning: " + model.warning);
  }
}

std::string WhyNoProbabilities(const Model& model, const std::vector<float>& values) {
  constexpr float kRounding = 1e-3F;  // for engines that compute in 16 bits
  const auto [min, max] = std::minmax_element(values.begin(), values.end());
  if (values.empty() || (*min >= -kRounding && *max <= 1 + kRounding)) {
    return "";
  }
  return fmt::format("output \"{}\" has values from {:.4g} to {:.4g}, which are no probabilities",
                     model.engine.outputs[0], *min, *max);
}

Model LoadModel(const std::string& path, std::optional<Backend> backend, Use use) {
  return Load(path, use, [&](const auto& config) { return MakeEngine(config, backend); });
}

Model LoadForm(const std::string& path, const Form& form, Use use) {
  return Load(path, use, [&](const auto&) { return MakeEngine(form); });
}

std::vector<Form> ListForms(const std::string& path,
                            const std::function<void(const std::string&)>& left_out) {
  return NamingFile(path, [&] { return ListForms(ReadDescription(path).config, left_out); });
}

std::vector<OutputMap> RunNetwork(const Model& model, const std::vector<cv::Mat>& images,
                                  double* seconds) {
  std::vector<OutputMap> outputs;
  const auto start = std::chrono::steady_clock::now();
  // With a batch size above 1, Forward() of a single image returns the values of a whole batch.
  if (images.size() == 1 && model.config.batch_size <= 1) {
    outputs.push_back(model.engine.network->Forward(images[0]));
  } else {
    outputs = model.engine.network->Forward(images);
  }
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return outputs;
}

const std::vector<float>& AnswerOf(const Model& model, const OutputMap& outputs) {
  const std::vector<float>& values = outputs.at(model.engine.outputs[0]);
  if (values.empty() || values.size() != model.labels.size()) {
    throw std::runtime_error(fmt::format("output \"{}\" has {} values, and there are {} labels",
                                         model.engine.outputs[0], values.size(),
                                         model.labels.size()));
  }
  return values;
}

Json::Value ToJson(const Model& model) {
  Json::Value document;
  document["model"] = JsonText(model.name);
  document["engine"] = model.engine.name;
  document["device"] = model.engine.device();
  document["why"] = model.engine.why;
  return document;
}

}  // namespace velmora::tool
