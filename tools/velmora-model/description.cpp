// Reads a MODEL.json. Links without an engine.

#include <fmt/ranges.h>
#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <limits>
#include <memory>
#include <string_view>

#include "common/text.h"
#include "files.h"
#include "model.h"

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

  [[noreturn]] void Refuse(std::string_view error) const {
    // Escaped, because a key may contain a NUL, which would end the exception's text.
    throw std::runtime_error(key.empty() ? std::string(error)
                                         : fmt::format("{}: {}", OneLine(key), error));
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

  /// The index of the value among the words.
  template <std::size_t kCount>
  std::size_t Word(const std::string_view (&words)[kCount]) const {
    const std::string word = String();
    const auto found = std::find(std::begin(words), std::end(words), word);
    Expect(found != std::end(words), fmt::format("\"{}\"", fmt::join(words, "\" or \"")));
    return static_cast<std::size_t>(found - std::begin(words));
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
  config.batch_size = 1;
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
  model->channels = static_cast<Channels>(section["channels"].Word({"rgb", "bgr", "gray"}));
  if (section.value.isMember("fit")) {
    model->fit = static_cast<Fit>(section["fit"].Word({"stretch", "crop", "letterbox"}));
  }
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
    } else if (name == "crop_fraction") {
      node.Expect(model->fit == Fit::kCrop, "\"fit\": \"crop\" beside it");
      model->crop_fraction = node.Number();
      node.Expect(model->crop_fraction > 0 && model->crop_fraction <= 1,
                  "a number above 0 and of at most 1");
    } else if (name == "letterbox_color") {
      node.Expect(model->fit == Fit::kLetterbox, "\"fit\": \"letterbox\" beside it");
      model->letterbox_color = node.PerChannel(count);
      const double* const color = model->letterbox_color.val;
      node.Expect(std::all_of(color, color + count, [](double c) { return c >= 0 && c <= 255; }),
                  "numbers from 0 to 255");
    } else if (name != "channels" && name != "fit") {
      node.Refuse("unknown key");
    }
  }
}

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  std::string errors;  // "* Line 3, Column 5\n  What is wrong\n" and so on; the first one is enough
  if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
    throw std::runtime_error("is not valid JSON: " + errors.substr(2, errors.find("\n* ") - 1));
  }
  return document;
}

}  // namespace

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

}  // namespace velmora::tool
