#include <algorithm>
#include <cctype>
#include <climits>
#include <iterator>
#include <map>
#include <opencv2/dnn/layer.hpp>
#include <string_view>

#include "caffe/description.h"
#include "caffe/rules.h"

namespace velmora::plugin::network::guards {
namespace {

// Each rule returns why a layer is refused, or "". The rules apply to all layers of a description,
// whatever phase they "include", because OpenCV loads them all.

std::string Plural(std::int64_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

// As in OpenCV: the old shape if any part of it is set, otherwise the new one, otherwise a scalar.
std::vector<std::int64_t> DimsOf(const pb::Message& blob) {
  constexpr const char* kOldShape[] = {"num", "channels", "height", "width"};
  std::vector<std::int64_t> dims;
  if (std::ranges::any_of(kOldShape, [&](const char* dim) { return Count(blob, dim) > 0; })) {
    for (const char* dim : kOldShape) {
      dims.push_back(blob.GetReflection()->GetInt32(blob, FieldOf(blob, dim)));
    }
    return dims;
  }
  const auto shapes = MessagesIn(blob, FieldOf(blob, "shape"));
  return shapes.empty() ? std::vector<std::int64_t>{1}
                        : NumbersIn(*shapes[0], FieldOf(*shapes[0], "dim"));
}

// How many values a blob claims to have, or INT_MAX + 1 for more than INT_MAX. OpenCV converts
// dimensions to int.
std::int64_t ValuesOf(const pb::Message& blob) {
  const auto dims = DimsOf(blob);
  std::int64_t count = dims.empty() ? 0 : 1;
  for (const std::int64_t dim : dims) {
    count = std::min(count * static_cast<std::int64_t>(static_cast<std::int32_t>(dim)),
                     std::int64_t{INT_MAX} + 1);
    if (count < 0) {
      return 1;  // OpenCV rejects it
    }
  }
  return count;
}

// Spells a type as in the rules below. The forms differ in case and in "_", and older versions of
// OpenCV compare in lower case. A quantised layer counts as the one that it is derived from.
std::string KeyOf(const std::string& type) {
  std::string key;
  for (const char c : type) {
    if (c != '_') {
      key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  if (key.ends_with("int8")) {
    key.resize(key.size() - 4);
  }
  return key == "conv" ? "convolution" : key == "pool" ? "pooling" : key;
}

// What OpenCV assumes about the layers of a type without checking it.
struct LayerNeeds {
  std::string_view type;
  int min_bottoms = 0;
  int max_bottoms = INT_MAX;
  int max_tops_beyond_bottoms = INT_MAX;
  int min_blobs = 0;
  int min_values = 0;            // in each blob
  std::string_view number = {};  // a parameter that must be set
};
constexpr LayerNeeds kLayerNeeds[] = {
    {.type = "accum", .min_bottoms = 1},
    {.type = "batchnorm", .min_bottoms = 1, .min_blobs = 2, .min_values = 1},
    {.type = "convolution", .min_values = 1},
    {.type = "convolutiondepthwise", .min_values = 1},
    {.type = "cumsum", .number = "axis"},
    {.type = "deconvolution", .min_blobs = 1, .min_values = 1},
    {.type = "dropout", .max_tops_beyond_bottoms = 0},
    {.type = "gru", .min_blobs = 3},
    {.type = "identity", .max_tops_beyond_bottoms = 0},
    {.type = "lrn", .max_bottoms = 1},
    {.type = "reshape", .min_bottoms = 1},
    {.type = "scale", .min_bottoms = 1},
    {.type = "shift", .min_bottoms = 1},
    {.type = "silence", .max_tops_beyond_bottoms = 0},
};

// Whether OpenCV itself or the host has registered this type of layer.
template <typename Factory = ::cv::dnn::LayerFactory>
bool IsRegistered(const std::string& type) {
  if constexpr (requires { Factory::isLayerRegistered(type); }) {
    return Factory::isLayerRegistered(type);
  } else {  // before 4.5
    try {
      ::cv::dnn::LayerParams none;
      return !Factory::createLayerInstance(type, none).empty();
    } catch (const std::exception&) {
      return true;  // it is, and misses its parameters
    }
  }
}

// The new form of an old type: "MemoryData" for "MEMORY_DATA".
std::string NewNameOf(const std::string& old_type) {
  std::string name;
  bool is_first = true;
  for (const char c : old_type) {
    const auto letter = static_cast<unsigned char>(c);
    if (c != '_') {
      name += static_cast<char>(is_first ? std::toupper(letter) : std::tolower(letter));
    }
    is_first = c == '_';
  }
  return name;
}

std::string BadLayer(const pb::Message& layer, const std::vector<const pb::Message*>& blobs,
                     int most_values) {
  const std::string type = KeyOf(TypeOf(layer));
  const auto* const row = std::ranges::find(kLayerNeeds, type, &LayerNeeds::type);
  const LayerNeeds needs = row != std::end(kLayerNeeds) ? *row : LayerNeeds{};
  const int bottoms = Count(layer, "bottom");
  const int tops = Count(layer, "top");
  if (bottoms == 0 && type != "input") {
    const bool is_old = FieldOf(layer, "type")->enum_type() != nullptr;
    if (!IsRegistered(is_old ? NewNameOf(TypeOf(layer)) : TypeOf(layer))) {
      return "reads nothing, and OpenCV has no layer of this type: a network for use takes its "
             "data from an Input layer, not from those of its training";
    }
  }
  if (bottoms < needs.min_bottoms) {
    return "has no bottom, which it must have";
  }
  if (bottoms > needs.max_bottoms) {
    return "has " + Plural(bottoms, "bottom") + ", of at most " + std::to_string(needs.max_bottoms);
  }
  if (tops - bottoms > needs.max_tops_beyond_bottoms) {
    return "has " + Plural(tops, "top") + ", which must not be more than the bottoms";
  }
  if (static_cast<int>(blobs.size()) < needs.min_blobs) {
    return "has " + Plural(static_cast<int>(blobs.size()), "blob") + " of weights, and needs " +
           std::to_string(needs.min_blobs);
  }
  for (std::size_t i = 0; i < blobs.size(); ++i) {
    const std::int64_t values = ValuesOf(*blobs[i]);
    if (values > most_values) {
      return "claims more values in blob " + std::to_string(i) + " than the file can carry";
    }
    if (values < needs.min_values) {
      return "has no values in blob " + std::to_string(i);
    }
  }
  if (!needs.number.empty() && NumbersOf(layer, needs.number).empty()) {
    return "has no " + std::string(needs.number) + ", which it must have";
  }
  return BadNumber(layer, type);
}

// Makes a name or a type fit for a log line.
std::string Quotable(const std::string& text) {
  constexpr std::size_t kLongest = 60;
  std::string line = text.substr(0, kLongest) + (text.size() > kLongest ? "..." : "");
  std::ranges::replace_if(
      line, [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; }, '?');
  return line;
}

}  // namespace

std::string BadModel(const pb::Message& description, const pb::Message& weights, int size) {
  for (const pb::Message* net : {&description, &weights}) {
    const auto oldest = CountOldest(*net);
    if (oldest > 0 && oldest < std::ssize(LayersOf(*net))) {
      return "mixes two forms of layers";
    }
  }
  // As in OpenCV, a layer takes the blobs of the first layer of its name that still has any. The
  // blobs of other layers are not checked.
  std::multimap<std::string, const pb::Message*> layers_with_blobs;
  for (const pb::Message* layer : LayersOf(weights)) {
    if (Count(*layer, "blobs") > 0) {
      layers_with_blobs.emplace(NameOf(*layer), layer);
    }
  }
  for (const pb::Message* layer : LayersOf(description)) {
    std::vector<const pb::Message*> blobs;
    const std::string name = NameOf(*layer);
    if (const auto found = layers_with_blobs.lower_bound(name);
        found != layers_with_blobs.end() && found->first == name) {
      blobs = MessagesIn(*found->second, FieldOf(*found->second, "blobs"));
      layers_with_blobs.erase(found);
    }
    if (const std::string reason = BadLayer(*layer, blobs, size / 2); !reason.empty()) {
      return "layer \"" + Quotable(name) + "\" (" + Quotable(TypeOf(*layer)) + ") " + reason;
    }
  }
  return {};
}

}  // namespace velmora::plugin::network::guards
