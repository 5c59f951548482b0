#include "opencv/caffe_model.h"

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/wire_format_lite.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <opencv2/dnn/layer.hpp>
#include <span>
#include <string_view>
#include <system_error>
#include <vector>

#include "caffe_format.h"

namespace velmora::plugin::network::compat {
namespace {

namespace pb = ::google::protobuf;
using WireFormat = pb::internal::WireFormatLite;

// For a model without its values; one of a thousand layers takes 100 KB. The limits keep a hostile
// file from being blown up in memory: an empty layer has three bytes there and a kilobyte here.
constexpr std::size_t kMaxSkeleton = std::size_t{16} << 20;
constexpr int kMaxMessages = 100'000;  // layers and blobs; in a text, messages of any kind

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  explicit File(const std::string& path) {
    do {
      // Without O_NONBLOCK, opening a FIFO waits for a writer.
      fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd_ < 0 && errno == EINTR);
    error_ = errno;
  }
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  int error() const { return error_; }  // why it is not open

  // Reading anything else would take its content from OpenCV.
  bool is_regular() const {
    struct stat status = {};
    return fstat(fd_, &status) == 0 && S_ISREG(status.st_mode);
  }

  int size() const {
    struct stat status = {};
    fstat(fd_, &status);
    return static_cast<int>(std::min<off_t>(status.st_size, INT_MAX));
  }

  // The same file for a reader that wants a path, whatever stands at its own path by now.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_ = -1;
  int error_ = 0;
};

// ---- the bytes of a binary model ---------------------------------------------------------------

// The format as messages made at run time. Generated classes would enter themselves in a table that
// libprotobuf keeps for the whole process, and loading this library, unloading it and loading it
// again would end the process there.
class Format {
 public:
  Format() : factory_(&pool_) {
    pb::FileDescriptorSet files;
    static_cast<void>(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
    net_ = pool_.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter");
  }

  const pb::Descriptor* net() const { return net_; }

  std::unique_ptr<pb::Message> NewNet() {
    return std::unique_ptr<pb::Message>(factory_.GetPrototype(net_)->New());
  }

 private:
  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_;
  const pb::Descriptor* net_ = nullptr;
};

// Walks a binary model and makes a copy of it without the values in its blobs and without the
// fields that the format lacks: it skips these instead of loading them.
class BinaryWalk {
 public:
  BinaryWalk(const File& file, const pb::Descriptor* net) : file_(file.fd()), in_(&file_) {
    in_.SetTotalBytesLimit(INT_MAX);
    static_cast<void>(in_.PushLimit(file.size()));
    is_message_ = Message(net, skeleton_, Level::kNet);
  }

  // False for bytes that protobuf refuses too, or that are too much.
  bool is_message() const { return is_message_; }
  bool is_too_much() const { return is_too_much_; }

  const std::string& skeleton() const { return skeleton_; }

 private:
  enum class Level { kNet, kLayer, kBlob };

  static bool IsNext(Level level, const pb::FieldDescriptor& field) {
    return level == Level::kNet     ? field.name() == "layer" || field.name() == "layers"
           : level == Level::kLayer ? field.name() == "blobs"
                                    : false;
  }

  bool Message(const pb::Descriptor* type, std::string& out, Level level) {
    while (in_.BytesUntilLimit() > 0) {
      std::uint32_t tag = 0;
      if (!in_.ReadVarint32(&tag)) return false;
      // A zero, or the end of a group that did not begin, ends the whole message; what follows is
      // ignored. Within a message, protobuf takes either for an error.
      if (tag == 0 || WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_END_GROUP) {
        return level == Level::kNet;
      }
      const pb::FieldDescriptor* field =
          type->FindFieldByNumber(WireFormat::GetTagFieldNumber(tag));
      const bool is_number = WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_VARINT;
      const bool is_bytes =
          WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_LENGTH_DELIMITED;
      const bool holds_values = level == Level::kBlob && field != nullptr && !is_number &&
                                field->cpp_type() != pb::FieldDescriptor::CPPTYPE_MESSAGE;
      if (field == nullptr || holds_values) {
        if (!WireFormat::SkipField(&in_, tag)) return false;
      } else if (is_bytes && IsNext(level, *field)) {
        if (!Nested(tag, field->message_type(), out, level)) return false;
      } else if (!Copy(tag, out)) {
        return false;
      }
    }
    return true;
  }

  bool Nested(std::uint32_t tag, const pb::Descriptor* type, std::string& outer, Level level) {
    int size = 0;
    if (!ReadSize(size)) return false;
    if (++messages_ > kMaxMessages) return TooMuch();
    const auto limit = in_.PushLimit(size);
    std::string copy;
    if (!Message(type, copy, level == Level::kNet ? Level::kLayer : Level::kBlob)) return false;
    in_.PopLimit(limit);
    return Append(tag, outer) && Append(copy.size(), outer) && Append(copy, outer);
  }

  bool Copy(std::uint32_t tag, std::string& out) {
    std::uint64_t number = 0;
    int size = 0;
    switch (WireFormat::GetTagWireType(tag)) {
      case WireFormat::WIRETYPE_VARINT:
        return in_.ReadVarint64(&number) && Append(tag, out) && Append(number, out);
      case WireFormat::WIRETYPE_FIXED32:
        return Append(tag, out) && CopyBytes(4, out);
      case WireFormat::WIRETYPE_LENGTH_DELIMITED:
        return ReadSize(size) && Append(tag, out) &&
               Append(static_cast<std::uint64_t>(size), out) && CopyBytes(size, out);
      default:  // the format has no such fields
        return WireFormat::SkipField(&in_, tag);
    }
  }

  bool CopyBytes(int size, std::string& out) {
    if (static_cast<std::size_t>(size) > kMaxSkeleton) return TooMuch();
    std::string bytes;
    return in_.ReadString(&bytes, size) && Append(bytes, out);
  }

  bool ReadSize(int& size) {
    return in_.ReadVarintSizeAsInt(&size) && size <= in_.BytesUntilLimit();
  }

  bool Append(std::string_view bytes, std::string& out) {
    out += bytes;
    return out.size() <= kMaxSkeleton || TooMuch();
  }

  bool Append(std::uint64_t varint, std::string& out) {
    std::uint8_t bytes[10];
    std::uint8_t* const end = pb::io::CodedOutputStream::WriteVarint64ToArray(varint, bytes);
    return Append(std::string(bytes, end), out);
  }

  bool TooMuch() {
    is_too_much_ = true;
    return false;
  }

  pb::io::FileInputStream file_;
  pb::io::CodedInputStream in_;
  std::string skeleton_;
  int messages_ = 0;
  bool is_message_ = false;
  bool is_too_much_ = false;
};

// ---- descriptions ------------------------------------------------------------------------------

class Silence : public pb::io::ErrorCollector {
 public:
  // libprotobuf calls the first up to version 21 and the second from 22 on.
  void AddError(int /*line*/, pb::io::ColumnNumber /*column*/,  // NOLINT(modernize-use-override)
                const std::string& /*message*/) {}
  void RecordError(int /*line*/, pb::io::ColumnNumber /*column*/, std::string_view /*message*/) {}
};

const pb::FieldDescriptor* FieldOf(const pb::Message& message, const std::string& name) {
  return message.GetDescriptor()->FindFieldByName(name);
}

// How many values a field has; 0 or 1 for one that is not repeated.
int Count(const pb::Message& message, const pb::FieldDescriptor* field) {
  const pb::Reflection& reflection = *message.GetReflection();
  return field->is_repeated() ? reflection.FieldSize(message, field)
                              : static_cast<int>(reflection.HasField(message, field));
}

int Count(const pb::Message& message, const std::string& field) {
  return Count(message, FieldOf(message, field));
}

std::vector<const pb::FieldDescriptor*> FieldsIn(const pb::Message& message) {
  std::vector<const pb::FieldDescriptor*> fields;
  message.GetReflection()->ListFields(message, &fields);
  return fields;
}

// The messages in a field, none if it holds something else.
std::vector<const pb::Message*> MessagesIn(const pb::Message& message,
                                           const pb::FieldDescriptor* field) {
  const pb::Reflection& reflection = *message.GetReflection();
  std::vector<const pb::Message*> messages;
  if (field->cpp_type() != pb::FieldDescriptor::CPPTYPE_MESSAGE) return messages;
  for (int i = 0; i < Count(message, field); ++i) {
    messages.push_back(field->is_repeated() ? &reflection.GetRepeatedMessage(message, field, i)
                                            : &reflection.GetMessage(message, field));
  }
  return messages;
}

// The whole numbers in a field, none if it holds something else.
std::vector<std::int64_t> NumbersIn(const pb::Message& message, const pb::FieldDescriptor* field) {
  const pb::Reflection& r = *message.GetReflection();
  const bool repeated = field->is_repeated();
  std::vector<std::int64_t> numbers;
  for (int i = 0; i < Count(message, field); ++i) {
    switch (field->cpp_type()) {
      case pb::FieldDescriptor::CPPTYPE_INT32:
        numbers.push_back(repeated ? r.GetRepeatedInt32(message, field, i)
                                   : r.GetInt32(message, field));
        break;
      case pb::FieldDescriptor::CPPTYPE_UINT32:
        numbers.push_back(repeated ? r.GetRepeatedUInt32(message, field, i)
                                   : r.GetUInt32(message, field));
        break;
      case pb::FieldDescriptor::CPPTYPE_INT64:
        numbers.push_back(repeated ? r.GetRepeatedInt64(message, field, i)
                                   : r.GetInt64(message, field));
        break;
      default:
        break;
    }
  }
  return numbers;
}

// What a field of text or an enumeration says; empty without one.
std::string TextIn(const pb::Message& message, const std::string& name) {
  const pb::FieldDescriptor* field = FieldOf(message, name);
  if (Count(message, field) == 0) return {};
  const pb::Reflection& reflection = *message.GetReflection();
  return field->enum_type() == nullptr
             ? reflection.GetString(message, field)
             : std::string(field->enum_type()
                               ->FindValueByNumber(reflection.GetEnumValue(message, field))
                               ->name());
}

// A layer of the oldest form stands in one of the old form, with its name and type.
const pb::Message& InnermostOf(const pb::Message& layer) {
  const pb::FieldDescriptor* inner = FieldOf(layer, "layer");
  return inner != nullptr && Count(layer, inner) > 0
             ? layer.GetReflection()->GetMessage(layer, inner)
             : layer;
}

std::string NameOf(const pb::Message& layer) { return TextIn(InnermostOf(layer), "name"); }
std::string TypeOf(const pb::Message& layer) { return TextIn(InnermostOf(layer), "type"); }

// As the rules below spell a type: the types of the forms differ in case and in "_", and older
// versions of OpenCV compare in small letters. A quantised layer is like the one that it is of.
std::string KeyOf(const std::string& type) {
  std::string key;
  for (const char c : type) {
    if (c != '_') key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (key.ends_with("int8")) key.resize(key.size() - 4);
  return key == "conv" ? "convolution" : key == "pool" ? "pooling" : key;
}

// If there are layers of both forms, OpenCV takes the old ones and drops the others.
std::vector<const pb::Message*> LayersOf(const pb::Message& net) {
  return MessagesIn(net, FieldOf(net, Count(net, "layers") > 0 ? "layers" : "layer"));
}

// How many layers are of the oldest form.
std::ptrdiff_t CountOldest(const pb::Message& net) {
  return std::ranges::count_if(LayersOf(net),
                               [](const auto* layer) { return &InnermostOf(*layer) != layer; });
}

// ---- what crashes OpenCV -----------------------------------------------------------------------
//
// Each rule returns a reason, or nothing for what OpenCV may have. They hold for every layer of a
// description, whatever phase its "include" names: OpenCV leaves no layer out.

std::string Plural(std::int64_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

// OpenCV's choice: the old shape if any part of it is there, else the new one, else a scalar.
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

// How many values a blob claims to carry, as far as an int counts. OpenCV takes dimensions for
// ints.
std::int64_t ValuesOf(const pb::Message& blob) {
  const auto dims = DimsOf(blob);
  std::int64_t count = dims.empty() ? 0 : 1;
  for (const std::int64_t dim : dims) {
    count = std::min(count * static_cast<std::int64_t>(static_cast<std::int32_t>(dim)),
                     std::int64_t{INT_MAX} + 1);
    if (count < 0) return 1;  // OpenCV refuses it
  }
  return count;
}

// Numbers outside these limits make OpenCV divide by zero, overflow or leave its arrays. It pours
// all parameter messages of a layer into one list, so that a number counts by its name, wherever it
// stands.
struct NumberLimit {
  std::string_view layer_type;  // as from KeyOf; empty for every type
  std::string_view name;
  std::int64_t min;
  std::int64_t max;
};
constexpr std::int64_t kLastAxis = 31;
constexpr std::int64_t kBelowCount = INT64_MAX;  // less than there are numbers of the name
constexpr std::int64_t kMaxPad = INT_MAX / 4;    // two of them and a window fit in an int
constexpr NumberLimit kNumberLimits[] = {
    {"", "axis", -kLastAxis, kLastAxis},
    {"", "group", 1, INT_MAX},
    {"", "pad", 0, kMaxPad},
    {"", "pad_h", 0, kMaxPad},
    {"", "pad_w", 0, kMaxPad},
    {"convolution", "num_output", 1, INT_MAX},
    {"convolutiondepthwise", "num_output", 1, INT_MAX},
    {"cumsum", "axis", -1, -1},
    {"deconvolution", "num_output", 1, INT_MAX},
    {"innerproduct", "num_output", 1, INT_MAX},
    {"permute", "order", 0, kBelowCount},
    {"proposal", "post_nms_topn", 0, INT_MAX},
    {"scale", "axis", 0, kLastAxis},
};

// What OpenCV takes for granted about the layers of a type.
struct LayerNeeds {
  std::string_view type;
  int min_bottoms = 0;
  int max_bottoms = INT_MAX;
  int max_tops_beyond_bottoms = INT_MAX;
  int min_blobs = 0;
  int min_values = 0;            // in each blob
  std::string_view number = {};  // that it has to have
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

// Adds the numbers of a layer that are called `name`.
void AddNumbers(const pb::Message& message, std::string_view name,
                std::vector<std::int64_t>& numbers) {
  for (const pb::FieldDescriptor* field : FieldsIn(message)) {
    for (const pb::Message* inner : MessagesIn(message, field)) AddNumbers(*inner, name, numbers);
    if (field->name() == name)
      std::ranges::copy(NumbersIn(message, field), std::back_inserter(numbers));
  }
}

std::vector<std::int64_t> NumbersOf(const pb::Message& layer, std::string_view name) {
  std::vector<std::int64_t> numbers;
  AddNumbers(layer, name, numbers);
  return numbers;
}

bool FitInInt(std::int64_t a, std::int64_t b) { return a == 0 || b <= INT_MAX / a; }

std::string BadNumber(const pb::Message& layer, const std::string& type) {
  const auto is = [](std::string_view name, std::int64_t number) {
    return std::string(name) + " is " + std::to_string(number) + ", ";
  };
  for (const NumberLimit& limit : kNumberLimits) {
    if (!limit.layer_type.empty() && limit.layer_type != type) continue;
    const std::vector<std::int64_t> numbers = NumbersOf(layer, limit.name);
    const std::int64_t max =
        limit.max == kBelowCount ? static_cast<std::int64_t>(numbers.size()) - 1 : limit.max;
    for (const std::int64_t number : numbers) {
      if (number >= limit.min && number <= max) continue;
      return is(limit.name, number) + "which must be " + std::to_string(limit.min) + " to " +
             std::to_string(max);
    }
  }
  // OpenCV counts in an int the values of a pooling window and those that a dilated one spans.
  if (type == "pooling") {
    for (const char* const name : {"kernel_size", "kernelsize"}) {  // new forms and the oldest
      for (const std::int64_t side : NumbersOf(layer, name)) {
        if (!FitInInt(side, side)) return is(name, side) + "too large for an area";
      }
    }
    for (const std::int64_t height : NumbersOf(layer, "kernel_h")) {
      for (const std::int64_t width : NumbersOf(layer, "kernel_w")) {
        if (FitInInt(height, width)) continue;
        return is("kernel_h", height) + is("kernel_w", width) + "too large for an area";
      }
    }
  } else if (type.starts_with("convolution")) {
    for (const std::int64_t dilation : NumbersOf(layer, "dilation")) {
      for (const char* const name : {"kernel_size", "kernel_h", "kernel_w"}) {
        for (const std::int64_t size : NumbersOf(layer, name)) {
          if (FitInInt(dilation, size)) continue;
          return is("dilation", dilation) + is(name, size) + "too large together";
        }
      }
    }
  }
  return {};
}

// True for the types of OpenCV's own layers and of those that the host has added to them.
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

// The name of an old type in the new form: "MemoryData" for "MEMORY_DATA".
std::string NewNameOf(const std::string& old_type) {
  std::string name;
  bool is_first = true;
  for (const char c : old_type) {
    const auto letter = static_cast<unsigned char>(c);
    if (c != '_') name += static_cast<char>(is_first ? std::toupper(letter) : std::tolower(letter));
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
  if (bottoms < needs.min_bottoms) return "has no bottom, which it must have";
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
    if (values < needs.min_values) return "has no values in blob " + std::to_string(i);
  }
  if (!needs.number.empty() && NumbersOf(layer, needs.number).empty()) {
    return "has no " + std::string(needs.number) + ", which it must have";
  }
  return BadNumber(layer, type);
}

// Of a name or a type: what fits into a line of a log.
std::string Quotable(const std::string& text) {
  constexpr std::size_t kLongest = 60;
  std::string line = text.substr(0, kLongest) + (text.size() > kLongest ? "..." : "");
  std::ranges::replace_if(
      line, [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; }, '?');
  return line;
}

// `size` is that of the file of the weights, in which a value takes two bytes or more.
std::string BadModel(const pb::Message& description, const pb::Message& weights, int size) {
  for (const pb::Message* net : {&description, &weights}) {
    const auto oldest = CountOldest(*net);
    if (oldest > 0 && oldest < std::ssize(LayersOf(*net))) return "mixes two forms of layers";
  }
  // As OpenCV goes about it: a layer takes the blobs of the first of its name that still has any.
  // Those of other layers are not looked at.
  std::multimap<std::string, const pb::Message*> layers_with_blobs;
  for (const pb::Message* layer : LayersOf(weights)) {
    if (Count(*layer, "blobs") > 0) layers_with_blobs.emplace(NameOf(*layer), layer);
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

// As with a binary model: `layer{}` takes eight bytes there and a kilobyte here, and again in
// OpenCV. A message begins with a bracket, of one kind or the other.
bool IsTooMuchText(const File& file) {
  if (static_cast<std::size_t>(file.size()) > kMaxSkeleton) return true;
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

// Silently, and past fields that caffe_format.proto lacks: what to make of those is OpenCV's
// affair.
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

void Write(const File& file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(file.fd(), text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "Cannot write a Caffe description");
    }
  }
}

const char* const kNotRegular = "not a regular file";
const char* const kTooMuch = "more than 16 MiB, or 100,000 layers and blobs, besides the weights";

// Why OpenCV may not have a model of one file; otherwise writes the description in it to `text`.
std::string RefusalOf(const File& model, std::string& text) {
  if (!model.is_open()) return std::generic_category().message(model.error());
  if (!model.is_regular()) return kNotRegular;
  Format format;
  const BinaryWalk walk(model, format.net());
  if (walk.is_too_much()) return kTooMuch;
  const auto net = format.NewNet();
  if (!walk.is_message() || !net->ParsePartialFromString(walk.skeleton())) {
    return "not a binary Caffe model";
  }
  if (!net->IsInitialized()) return "no value of " + net->InitializationErrorString();
  if (std::ranges::none_of(LayersOf(*net),
                           [](const auto* layer) { return Count(*layer, "bottom") > 0; })) {
    return "no layer reads anything: weights of a pair, without the description";
  }
  if (CountOldest(*net) > 0) return "layers of the oldest form, which have to be upgraded";
  // As text, what the format lacks would be its numbers, which OpenCV does not read.
  net->DiscardUnknownFields();
  std::string reason = BadModel(*net, *net, model.size());
  if (reason.empty() && !pb::TextFormat::PrintToString(*net, &text)) reason = "too deeply nested";
  return reason;
}

// ---- the input ---------------------------------------------------------------------------------

// Where `text` stands in a list of texts; -1 where it does not.
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
    if (index < 0) continue;
    for (const pb::Message* input : MessagesIn(*layer, FieldOf(*layer, "input_param"))) {
      return ShapeIn(*input, "shape", std::min(index, Count(*input, "shape") - 1));
    }
  }
  return {};
}

}  // namespace

std::string RefusalOfCaffePair(const std::string& prototxt_path,
                               const std::string& caffemodel_path) {
  // What cannot be opened or parsed is left to OpenCV, whose exception names the file.
  Format format;
  const auto description = format.NewNet();
  const auto weights = format.NewNet();
  int size = 0;
  const File text(prototxt_path);
  if (!text.is_open()) return {};
  if (!text.is_regular()) return prototxt_path + ": " + kNotRegular;
  if (IsTooMuchText(text)) return prototxt_path + ": " + kTooMuch;
  if (!ParseText(text, *description)) return {};

  if (!caffemodel_path.empty()) {  // otherwise OpenCV makes a network without weights
    const File model(caffemodel_path);
    if (!model.is_open()) return {};
    size = model.size();
    if (!model.is_regular()) return caffemodel_path + ": " + kNotRegular;
    const BinaryWalk walk(model, format.net());
    if (walk.is_too_much()) return caffemodel_path + ": " + kTooMuch;
    if (!walk.is_message() || !weights->ParsePartialFromString(walk.skeleton())) return {};
  }
  const std::string reason = BadModel(*description, *weights, size);
  return reason.empty() ? reason : prototxt_path + ": " + reason;
}

std::string RefusalOfCaffeBinary(const std::string& path) {
  std::string text;
  const std::string reason = RefusalOf(File(path), text);
  return reason.empty() ? reason : path + ": " + reason;
}

std::vector<std::int64_t> InputOfCaffePair(const std::string& prototxt_path) {
  Format format;
  const auto net = format.NewNet();
  const File text(prototxt_path);
  return text.is_open() && text.is_regular() && ParseText(text, *net) ? InputOf(*net)
                                                                      : std::vector<std::int64_t>();
}

std::vector<std::int64_t> InputOfCaffeBinary(const std::string& path) {
  Format format;
  const auto net = format.NewNet();
  const File model(path);
  if (!model.is_open() || !model.is_regular()) return {};
  const BinaryWalk walk(model, format.net());
  return walk.is_message() && net->ParsePartialFromString(walk.skeleton())
             ? InputOf(*net)
             : std::vector<std::int64_t>();
}

::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path) {
  return RefusalOfCaffePair(prototxt_path, caffemodel_path).empty()
             ? ::cv::dnn::readNetFromCaffe(prototxt_path, caffemodel_path)
             : ::cv::dnn::Net();
}

::cv::dnn::Net ReadCaffeBinary(const std::string& path) {
  const File model(path);
  std::string text;
  if (!RefusalOf(model, text).empty()) return {};
  // OpenCV takes a description as text only. The weights it finds in the model itself, by the names
  // of the layers.
  const File description(memfd_create("caffe-description", MFD_CLOEXEC));
  Write(description, text);
  return ::cv::dnn::readNetFromCaffe(description.path(), model.path());
}

}  // namespace velmora::plugin::network::compat
