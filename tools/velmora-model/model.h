// A model: its description in a MODEL.json, and the network that is loaded from it.
#pragma once

#include <json/json.h>
#include <velmora/plugin/network/base_network.h>

#include <functional>
#include <opencv2/core.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/console.h"
#include "engines.h"

namespace velmora::tool {

/// A model that cannot be used, as "PATH: ERROR"; the error names the key or the file.
struct ModelError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class Channels { kRgb, kBgr, kGray };

/// How an image becomes one of the network's size.
enum class Fit {
  kStretch,   // all of it, stretched to the size
  kCrop,      // its centre, with the aspect ratio of the size
  kLetterbox  // all of it with its own aspect ratio, and a border
};

struct Model {
  std::string name;
  plugin::network::NetworkConfig config;
  cv::Size size;
  Channels channels = Channels::kRgb;
  Fit fit = Fit::kStretch;
  double crop_fraction = 0.875;  // of the largest centre; as ImageNet's networks are evaluated
  cv::Scalar letterbox_color;    // in the order of `channels`, as pixels are before mean and scale
  cv::Scalar mean = cv::Scalar::all(0);  // in the order of `channels`, as is the scale
  cv::Scalar scale = cv::Scalar::all(1);
  std::vector<std::string> labels;  // "0", "1", … when the description has none

  bool labelled = false;  // by the description

  Engine engine;
  std::string warning;  // for the user; usually empty
};

/// What the first output of a network must be: a probability for each label; one value for each
/// label; the latter if the description has labels; or anything.
enum class Use { kProbabilities, kAnswer, kAnswerToLabels, kAny };

/// The model without its network. Throws std::runtime_error, with the key but without the path, if
/// the file cannot be read or does not describe a model.
Model ReadDescription(const std::string& path);

/// Throws ModelError if the description or the network cannot be loaded, if the network does not
/// run on an image as described, or if its outputs are not what `use` says.
Model LoadModel(const std::string& path, std::optional<Backend> backend, Use use = Use::kAnswer);

Model LoadForm(const std::string& path, const Form& form, Use use);

void SayWarning(const Model& model, Console* console);

/// The forms of the model, see engines.h. Throws ModelError for a description that cannot be read.
std::vector<Form> ListForms(const std::string& path,
                            const std::function<void(const std::string&)>& left_out);

/// All outputs for each of the images, which must be prepared; `*seconds` is the time in the
/// network alone. Throws what the engine throws.
std::vector<plugin::network::OutputMap> RunNetwork(const Model& model,
                                                   const std::vector<cv::Mat>& images,
                                                   double* seconds);

/// Why the values of an answer cannot be probabilities; usually empty. They need not add up to 1:
/// several labels may apply to an image.
std::string WhyNoProbabilities(const Model& model, const std::vector<float>& values);

/// The values for the labels. Throws std::runtime_error unless there is one for each.
const std::vector<float>& AnswerOf(const Model& model, const plugin::network::OutputMap& outputs);

/// The beginning of every command's document: the model's name, the engine, its device and why.
Json::Value ToJson(const Model& model);

}  // namespace velmora::tool
