#include "model.h"

#include <fmt/format.h>
#include <json/json.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string_view>

#include "common.h"

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;

using plugin::network::NetworkConfig;

template <typename T>
struct Field {
  std::string_view name;
  T NetworkConfig::*member;
};

constexpr Field<std::string> kPaths[] = {
    {"dnn_binary_path", &NetworkConfig::dnn_binary_path},
    {"dnn_prototxt_path", &NetworkConfig::dnn_prototxt_path},
    {"dnn_caffemodel_path", &NetworkConfig::dnn_caffemodel_path},
    {"ie_cpu_xml_path", &NetworkConfig::ie_cpu_xml_path},
    {"ie_cpu_bin_path", &NetworkConfig::ie_cpu_bin_path},
    {"ie_gpu_xml_path", &NetworkConfig::ie_gpu_xml_path},
    {"ie_gpu_bin_path", &NetworkConfig::ie_gpu_bin_path},
    {"tflite_model_path", &NetworkConfig::tflite_model_path}};

constexpr Field<bool> kFlags[] = {{"enable_dnn", &NetworkConfig::enable_dnn},
                                  {"enable_ie", &NetworkConfig::enable_ie},
                                  {"enable_tflite", &NetworkConfig::enable_tflite}};

constexpr Field<std::uint32_t> kNumbers[] = {{"input_width", &NetworkConfig::input_width},
                                             {"input_height", &NetworkConfig::input_height},
                                             {"batch_size", &NetworkConfig::batch_size}};

/// The field of that name in the record, or null.
template <typename Fields>
auto* Find(const Fields& fields, const std::string& name, NetworkConfig* config) {
  for (const auto& field : fields) {
    if (field.name == name) {
      return &(config->*field.member);
    }
  }
  return static_cast<decltype(&(config->*fields[0].member))>(nullptr);
}

/// One value of the document.
struct Node {
  std::string key;  // such as "image.width"; empty for the document itself
  const Json::Value& value;

  [[noreturn]] void Refuse(std::string_view fault) const {
    throw std::runtime_error(key.empty() ? std::string(fault) : fmt::format("{}: {}", key, fault));
  }

  void Expect(bool is_so, std::string_view what) const {
    if (!is_so) {
      Refuse(fmt::format("expected {}", what));
    }
  }

  std::vector<std::string> Members(const std::vector<std::string>& required) const {
    Expect(value.isObject(), "an object");
    for (const std::string& name : required) {
      if (!value.isMember(name)) {
        Refuse(name + " is missing");
      }
    }
    return value.getMemberNames();
  }

  Node operator[](const std::string& name) const {
    return {key.empty() ? name : key + "." + name, value[name]};
  }

  Node operator[](int i) const { return {fmt::format("{}[{}]", key, i), value[i]}; }

  std::string String() const {
    Expect(value.isString(), "a string");
    Expect(value.asString().find('\0') == std::string::npos, "a string without NUL");
    return value.asString();
  }

  std::vector<std::string> Strings() const {
    Expect(value.isArray() && !value.empty(), "a list of strings, at least one");
    std::vector<std::string> strings;
    for (int i = 0; i < static_cast<int>(value.size()); ++i) {
      strings.push_back((*this)[i].String());
    }
    return strings;
  }

  int PixelCount() const {
    Expect(value.isInt() && value.asInt() >= 1 && value.asInt() <= 16384,
           "a positive integer of at most 16384");
    return value.asInt();
  }

  double Number() const {
    Expect(value.isNumeric() && std::abs(value.asDouble()) <= std::numeric_limits<float>::max(),
           "a number");
    return value.asDouble();
  }

  cv::Scalar PerChannel(int channels) const {
    if (!value.isArray()) {
      return cv::Scalar::all(Number());
    }
    Expect(value.size() == static_cast<Json::ArrayIndex>(channels),
           fmt::format("a number or a list of {}, one for each channel", channels));
    cv::Scalar numbers;
    for (int i = 0; i < channels; ++i) {
      numbers[i] = (*this)[i].Number();
    }
    return numbers;
  }
};

NetworkConfig ReadConfig(const Node& section, const fs::path& folder) {
  NetworkConfig config;
  for (const std::string& name : section.Members({"output_names"})) {
    const Node node = section[name];
    if (name == "output_names") {
      config.output_names = node.Strings();
    } else if (std::string* const path = Find(kPaths, name, &config)) {
      *path = node.String().empty() ? "" : (folder / node.String()).string();
    } else if (bool* const flag = Find(kFlags, name, &config)) {
      node.Expect(node.value.isBool(), "true or false");
      *flag = node.value.asBool();
    } else if (std::uint32_t* const number = Find(kNumbers, name, &config)) {
      node.Expect(node.value.isUInt(), "an integer of at least 0");
      *number = node.value.asUInt();
    } else {
      node.Refuse("unknown key");
    }
  }
  return config;
}

void ReadPreparation(const Node& section, Model* model) {
  const std::vector<std::string> names = section.Members({"width", "height", "channels"});
  const std::string channels = section["channels"].String();
  section["channels"].Expect(channels == "rgb" || channels == "bgr" || channels == "gray",
                             "\"rgb\", \"bgr\" or \"gray\"");
  model->channels = channels == "rgb"   ? Channels::kRgb
                    : channels == "bgr" ? Channels::kBgr
                                        : Channels::kGray;
  const int count = model->channels == Channels::kGray ? 1 : 3;
  for (const std::string& name : names) {
    const Node node = section[name];
    if (name == "width") {
      model->size.width = node.PixelCount();
    } else if (name == "height") {
      model->size.height = node.PixelCount();
    } else if (name == "mean") {
      model->mean = node.PerChannel(count);
    } else if (name == "scale") {
      model->scale = node.PerChannel(count);
    } else if (name != "channels") {
      node.Refuse("unknown key");
    }
  }
}

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  std::string faults;  // "* Line 3, Column 5\n  What is wrong\n" and so on; the first is enough
  if (!reader->parse(text.data(), text.data() + text.size(), &document, &faults)) {
    throw std::runtime_error("is not JSON: " + faults.substr(2, faults.find("\n* ") - 1));
  }
  return document;
}

Model ReadDescription(const std::string& path) {
  Model model;
  model.name = fs::path(path).filename().string();
  const Json::Value document = ParseJson(ReadFile(path));
  const Node root{"", document};
  for (const std::string& name : root.Members({"network", "image"})) {
    if (name == "name") {
      model.name = root[name].String();
    } else if (name == "network") {
      model.config = ReadConfig(root[name], fs::path(path).parent_path());
    } else if (name == "image") {
      ReadPreparation(root[name], &model);
    } else if (name == "labels") {
      model.labels = root[name].Strings();
    } else {
      root[name].Refuse("unknown key");
    }
  }
  return model;
}

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
