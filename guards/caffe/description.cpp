#include "caffe/description.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <span>
#include <string_view>

namespace velmora::plugin::network::guards {
namespace {

class Silence : public pb::io::ErrorCollector {
 public:
  // libprotobuf calls the first up to version 21 and the second from 22 on.
  void AddError(int /*line*/, pb::io::ColumnNumber /*column*/,  // NOLINT(modernize-use-override)
                const std::string& /*message*/) {}
  void RecordError(int /*line*/, pb::io::ColumnNumber /*column*/, std::string_view /*message*/) {}
};

// A layer of the oldest form is nested in one of the old form and has the name and type.
const pb::Message& InnermostOf(const pb::Message& layer) {
  const pb::FieldDescriptor* inner = FieldOf(layer, "layer");
  return inner != nullptr && Count(layer, inner) > 0
             ? layer.GetReflection()->GetMessage(layer, inner)
             : layer;
}

// Returns -1 if `text` is not in the list.
int IndexOf(const std::string& text, const pb::Message& message, const std::string& list) {
  for (int i = 0; i < Count(message, list); ++i) {
    if (message.GetReflection()->GetRepeatedString(message, FieldOf(message, list), i) == text) {
      return i;
    }
  }
  return -1;
}

std::vector<std::int64_t> ShapeIn(const pb::Message& message, const std::string& list, int index) {
  const auto shapes = MessagesIn(message, FieldOf(message, list));
  return index < std::ssize(shapes)
             ? NumbersIn(*shapes[static_cast<std::size_t>(index)],
                         FieldOf(*shapes[static_cast<std::size_t>(index)], "dim"))
             : std::vector<std::int64_t>();
}

}  // namespace

std::string NameOf(const pb::Message& layer) { return TextIn(InnermostOf(layer), "name"); }
std::string TypeOf(const pb::Message& layer) { return TextIn(InnermostOf(layer), "type"); }

std::vector<const pb::Message*> LayersOf(const pb::Message& net) {
  return MessagesIn(net, FieldOf(net, Count(net, "layers") > 0 ? "layers" : "layer"));
}

std::ptrdiff_t CountOldest(const pb::Message& net) {
  return std::ranges::count_if(LayersOf(net),
                               [](const auto* layer) { return &InnermostOf(*layer) != layer; });
}

bool IsTooMuchText(const File& file) {
  if (static_cast<std::size_t>(file.size()) > kMaxSkeleton) {
    return true;
  }
  pb::io::FileInputStream in(file.fd());
  const void* data = nullptr;
  int size = 0;
  std::ptrdiff_t brackets = 0;
  while (in.Next(&data, &size)) {
    const std::span text(static_cast<const char*>(data), static_cast<std::size_t>(size));
    brackets += std::ranges::count_if(text, [](char c) { return c == '{' || c == '<'; });
  }
  return lseek(file.fd(), 0, SEEK_SET) != 0 || brackets > kMaxMessages;
}

bool ParseText(const File& file, pb::Message& net) {
  Silence silence;
  pb::TextFormat::Parser parser;
  parser.RecordErrorsTo(&silence);
  parser.AllowUnknownField(true);
  parser.AllowPartialMessage(true);
  parser.SetRecursionLimit(1000);
  pb::io::FileInputStream in(file.fd());
  return parser.Parse(&in, &net);
}

std::vector<std::int64_t> InputOf(const pb::Message& net) {
  if (const int index = IndexOf("data", net, "input"); index >= 0) {
    const auto dims = NumbersIn(net, FieldOf(net, "input_dim"));
    const std::ptrdiff_t first = std::ptrdiff_t{4} * index;
    return first + 4 <= std::ssize(dims)
               ? std::vector(dims.begin() + first, dims.begin() + first + 4)
               : ShapeIn(net, "input_shape", index);
  }
  for (const pb::Message* layer : LayersOf(net)) {
    const int index = TypeOf(*layer) == "Input" ? IndexOf("data", *layer, "top") : -1;
    if (index < 0) {
      continue;
    }
    for (const pb::Message* input : MessagesIn(*layer, FieldOf(*layer, "input_param"))) {
      return ShapeIn(*input, "shape", std::min(index, Count(*input, "shape") - 1));
    }
  }
  return {};
}

}  // namespace velmora::plugin::network::guards
