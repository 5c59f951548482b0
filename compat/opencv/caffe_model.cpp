#include "opencv/caffe_model.h"

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>
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
#include <string_view>
#include <system_error>
#include <vector>

#include "caffe_format.h"

namespace velmora::plugin::network::compat {
namespace {

namespace pb = ::google::protobuf;

// For a model without its values; one of a thousand layers takes 100 KB. The limit keeps a hostile
// file from being blown up in memory: an empty layer has three bytes there and a kilobyte here.
constexpr std::size_t kMaxSkeleton = std::size_t{4} << 20;

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  explicit File(const std::string& path) {
    do {
      // Without O_NONBLOCK, opening a FIFO waits for a writer.
      fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd_ < 0 && errno == EINTR);
  }
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }

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
};

// ---- the bytes of a binary model ---------------------------------------------------------------

// The numbers of caffe_format.proto that the walk below needs.
constexpr int kNetOldLayers = 2;
constexpr int kNetLayers = 100;
constexpr int kOldLayerBlobs = 6;
constexpr int kLayerBlobs = 7;
constexpr int kBlobData = 5;
constexpr int kBlobRawData = 12;
constexpr int kRawFloat = 1;
constexpr int kRawFloat16 = 2;
constexpr bool HoldsValues(int blob_field) {  // data, diff and the like
  return (blob_field >= 5 && blob_field <= 9 && blob_field != 7) || blob_field == kBlobRawData;
}

enum WireType : std::uint32_t {
  kVarint = 0,
  kFixed64 = 1,
  kBytes = 2,
  kGroup = 3,
  kEndOfGroup = 4,
  kFixed32 = 5,
};

// What a blob carries of what OpenCV reads.
struct Carried {
  std::uint64_t floats = 0;
  std::uint64_t raw_bytes = 0;
};

// Walks a binary model and makes a copy of it without the values in its blobs, which it skips
// instead of loading them. Where protobuf would see another message than the walk, or memory could
// grow out of all relation to the file, the walk ends and calls the file harmful: no model has such
// things.
class BinaryWalk {
 public:
  explicit BinaryWalk(const File& file) : file_(file.fd()), in_(&file_) {
    in_.SetTotalBytesLimit(INT_MAX);
    static_cast<void>(in_.PushLimit(file.size()));
    is_message_ = Net();
  }

  // False for bytes that protobuf refuses too.
  bool is_message() const { return is_message_; }
  bool is_harmful() const { return is_harmful_; }

  const std::string& skeleton() const { return skeleton_; }

  // One for each blob, in the order of the layers of a form and of their blobs.
  const std::vector<Carried>& carried(bool is_old) const { return carried_[is_old ? 1 : 0]; }

 private:
  bool Net() {
    return Fields([this](std::uint32_t tag) {
      const bool is_old = FieldOf(tag) == kNetOldLayers;
      if (!is_old && FieldOf(tag) != kNetLayers) return Copy(tag, skeleton_);
      return Nested(tag, skeleton_, [&](std::string& layer) { return Layer(is_old, layer); });
    });
  }

  bool Layer(bool is_old, std::string& layer) {
    return Fields([&](std::uint32_t tag) {
      if (FieldOf(tag) != (is_old ? kOldLayerBlobs : kLayerBlobs)) return Copy(tag, layer);
      return Nested(tag, layer, [&](std::string& blob) {
        return Blob(carried_[is_old ? 1 : 0].emplace_back(), blob);
      });
    });
  }

  // As protobuf merges: floats add up, packed or not; of raw bytes the last count.
  bool Blob(Carried& carried, std::string& blob) {
    return Fields([&](std::uint32_t tag) {
      const int field = FieldOf(tag);
      if (field == kBlobData && WireTypeOf(tag) == kFixed32) {
        ++carried.floats;
        return in_.Skip(4);
      }
      if (!HoldsValues(field) || WireTypeOf(tag) != kBytes) return Copy(tag, blob);
      int size = 0;
      if (!ReadSize(size)) return false;
      if (field == kBlobData) carried.floats += static_cast<std::uint64_t>(size) / 4;
      if (field == kBlobRawData) carried.raw_bytes = static_cast<std::uint64_t>(size);
      return in_.Skip(size);
    });
  }

  // Calls `handle` with the tag of each field up to the end of the current message.
  template <typename Handle>
  bool Fields(Handle handle) {
    while (in_.BytesUntilLimit() > 0) {
      std::uint32_t tag = 0;
      if (!in_.ReadVarint32(&tag)) return false;
      // At a zero, protobuf ends the message and ignores what follows.
      if (tag == 0) return Harmful();
      if (FieldOf(tag) == 0 || !handle(tag)) return false;
    }
    return true;
  }

  // Adds to `outer` a message that `walk` makes a copy of.
  template <typename Walk>
  bool Nested(std::uint32_t tag, std::string& outer, Walk walk) {
    if (WireTypeOf(tag) != kBytes) return Copy(tag, outer);
    int size = 0;
    if (!ReadSize(size)) return false;
    const auto limit = in_.PushLimit(size);
    std::string copy;
    if (!walk(copy)) return false;
    in_.PopLimit(limit);
    return Append(tag, outer) && Append(copy.size(), outer) && Append(copy, outer);
  }

  bool Copy(std::uint32_t tag, std::string& out) {
    std::uint64_t number = 0;
    int size = 0;
    if (!Append(tag, out)) return false;
    switch (WireTypeOf(tag)) {
      case kVarint:
        return in_.ReadVarint64(&number) && Append(number, out);
      case kFixed64:
        return CopyBytes(8, out);
      case kFixed32:
        return CopyBytes(4, out);
      case kBytes:
        return ReadSize(size) && Append(static_cast<std::uint64_t>(size), out) &&
               CopyBytes(size, out);
      case kGroup:
      case kEndOfGroup:
        // The format has none. protobuf skips a group, with what may look like a blob in it, and
        // ends a message at the end of a group that never began.
        return Harmful();
    }
    return false;
  }

  bool CopyBytes(int size, std::string& out) {
    if (static_cast<std::size_t>(size) > kMaxSkeleton) return Harmful();
    std::string bytes;
    return in_.ReadString(&bytes, size) && Append(bytes, out);
  }

  bool ReadSize(int& size) {
    return in_.ReadVarintSizeAsInt(&size) && size <= in_.BytesUntilLimit();
  }

  bool Append(std::string_view bytes, std::string& out) {
    out += bytes;
    return out.size() <= kMaxSkeleton || Harmful();
  }

  bool Append(std::uint64_t varint, std::string& out) {
    std::uint8_t bytes[10];
    std::uint8_t* const end = pb::io::CodedOutputStream::WriteVarint64ToArray(varint, bytes);
    return Append(std::string(bytes, end), out);
  }

  bool Harmful() {
    is_harmful_ = true;
    return false;
  }

  static int FieldOf(std::uint32_t tag) { return static_cast<int>(tag >> 3); }
  static WireType WireTypeOf(std::uint32_t tag) { return static_cast<WireType>(tag & 7); }

  pb::io::FileInputStream file_;
  pb::io::CodedInputStream in_;
  std::string skeleton_;
  std::vector<Carried> carried_[2];
  bool is_message_ = false;
  bool is_harmful_ = false;
};

// ---- descriptions ------------------------------------------------------------------------------

class Silence : public pb::io::ErrorCollector {
 public:
  // libprotobuf calls the first up to version 21 and the second from 22 on.
  void AddError(int /*line*/, pb::io::ColumnNumber /*column*/,  // NOLINT(modernize-use-override)
                const std::string& /*message*/) {}
  void RecordError(int /*line*/, pb::io::ColumnNumber /*column*/, std::string_view /*message*/) {}
};

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

  std::unique_ptr<pb::Message> NewNet() {
    return std::unique_ptr<pb::Message>(factory_.GetPrototype(net_)->New());
  }

 private:
  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_;
  const pb::Descriptor* net_ = nullptr;
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

std::string NameOf(const pb::Message& layer) {
  return layer.GetReflection()->GetString(layer, FieldOf(layer, "name"));
}

// In small letters: the old types are "DROPOUT" and the like, and older versions of OpenCV compare
// types without regard to case.
std::string TypeOf(const pb::Message& layer) {
  const pb::FieldDescriptor* field = FieldOf(layer, "type");
  const pb::EnumDescriptor* old_types = field->enum_type();
  const pb::Reflection& reflection = *layer.GetReflection();
  std::string type =
      old_types == nullptr
          ? reflection.GetString(layer, field)
          : std::string(
                old_types->FindValueByNumber(reflection.GetEnumValue(layer, field))->name());
  for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return type;
}

bool HasOldLayers(const pb::Message& net) { return Count(net, "layers") > 0; }

// If there are layers of both forms, OpenCV takes the old ones and drops the others.
std::vector<const pb::Message*> LayersOf(const pb::Message& net) {
  return MessagesIn(net, FieldOf(net, HasOldLayers(net) ? "layers" : "layer"));
}

bool HasUnknownField(const pb::Message& message) {
  if (!message.GetReflection()->GetUnknownFields(message).empty()) return true;
  for (const pb::FieldDescriptor* field : FieldsIn(message)) {
    for (const pb::Message* inner : MessagesIn(message, field)) {
      if (HasUnknownField(*inner)) return true;
    }
  }
  return false;
}

// True if the message is in one form, and not in the oldest (a layer in a layer), which
// caffe_format.proto does not spell out.
bool IsInKnownForm(const pb::Message& net) {
  const auto layers = LayersOf(net);
  if (layers.empty() || !HasOldLayers(net)) return !layers.empty();
  return Count(net, "layer") == 0 &&
         std::ranges::none_of(layers, [](const auto* layer) { return Count(*layer, "layer") > 0; });
}

// ---- what crashes OpenCV -----------------------------------------------------------------------

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

// True if a blob carries what its shape claims. OpenCV compares the two in 32 bits and reads by the
// shape. It lets blobs of no values pass, by whose size some layers then divide.
bool IsHonest(const pb::Message& blob, const Carried& carried) {
  constexpr std::uint64_t kTooMany = std::uint64_t{1} << 32;
  const auto dims = DimsOf(blob);
  std::uint64_t claimed = dims.empty() ? 0 : 1;
  for (const std::int64_t dim : dims) {
    if (dim <= 0 || dim > INT_MAX) return false;
    claimed = std::min(claimed * static_cast<std::uint64_t>(dim), kTooMany);
  }
  const int raw_type = blob.GetReflection()->GetEnumValue(blob, FieldOf(blob, "raw_data_type"));
  const std::uint64_t raw_size = raw_type == kRawFloat ? 4 : raw_type == kRawFloat16 ? 2 : 0;
  const std::uint64_t raw_values = raw_size > 0 ? carried.raw_bytes / raw_size : 0;
  return claimed > 0 && claimed <= (carried.floats > 0 ? carried.floats : raw_values);
}

bool HasHonestBlobs(const pb::Message& net, const BinaryWalk& walk) {
  auto carried = walk.carried(HasOldLayers(net)).begin();
  for (const pb::Message* layer : LayersOf(net)) {
    for (const pb::Message* blob : MessagesIn(*layer, FieldOf(*layer, "blobs"))) {
      if (!IsHonest(*blob, *carried++)) return false;
    }
  }
  return true;
}

// Numbers outside these limits make OpenCV divide by zero, overflow or leave its arrays. It pours
// all parameter messages of a layer into one list, so that a number counts by its name, wherever it
// stands.
struct NumberLimit {
  std::string_view layer_type;  // as from TypeOf; empty for every type
  std::string_view name;
  std::int64_t min;
  std::int64_t max;
};
constexpr std::int64_t kLastAxis = 31;
constexpr std::int64_t kMaxExtent = 32767;  // the product of two fits in an int
constexpr NumberLimit kNumberLimits[] = {
    {"", "axis", -kLastAxis, kLastAxis},
    {"", "dilation", 0, kMaxExtent},
    {"", "group", 1, INT_MAX},
    {"", "kernel_h", 0, kMaxExtent},
    {"", "kernel_size", 0, kMaxExtent},
    {"", "kernel_w", 0, kMaxExtent},
    {"", "num_output", 1, INT_MAX},
    {"", "order", 0, kLastAxis},
    {"proposal", "post_nms_topn", 0, INT_MAX},
    {"scale", "axis", 0, kLastAxis},
};

// What OpenCV takes for granted about the layers of a type. Where no row says otherwise, a layer
// has to read something; that the layers in the weights of a pair do not is what tells these from a
// description.
struct LayerNeeds {
  std::string_view type;
  int min_bottoms = 1;
  int max_bottoms = INT_MAX;
  int max_tops_beyond_bottoms = INT_MAX;
  int min_blobs = 0;
};
constexpr LayerNeeds kLayerNeeds[] = {
    {.type = "batchnorm", .min_blobs = 2},
    {.type = "cumsum", .max_bottoms = 0},  // crashes whatever it is given
    {.type = "deconvolution", .min_blobs = 1},
    {.type = "dropout", .max_tops_beyond_bottoms = 0},
    {.type = "gru", .min_blobs = 3},
    {.type = "identity", .max_tops_beyond_bottoms = 0},
    {.type = "input", .min_bottoms = 0},
    {.type = "lrn", .max_bottoms = 1},
    {.type = "silence", .max_tops_beyond_bottoms = 0},
};

bool IsWithinLimits(const pb::Message& message, const std::string& layer_type) {
  for (const pb::FieldDescriptor* field : FieldsIn(message)) {
    for (const pb::Message* inner : MessagesIn(message, field)) {
      if (!IsWithinLimits(*inner, layer_type)) return false;
    }
    for (const NumberLimit& limit : kNumberLimits) {
      if (limit.name != field->name()) continue;
      if (!limit.layer_type.empty() && limit.layer_type != layer_type) continue;
      for (const std::int64_t number : NumbersIn(message, field)) {
        if (number < limit.min || number > limit.max) return false;
      }
    }
  }
  return true;
}

bool IsDescriptionHarmless(const pb::Message& description, const pb::Message& weights) {
  // As OpenCV goes about it: a layer takes the blobs of the first of its name that still has any.
  std::multimap<std::string, int> blobs_by_name;
  for (const pb::Message* layer : LayersOf(weights)) {
    if (const int blobs = Count(*layer, "blobs")) blobs_by_name.emplace(NameOf(*layer), blobs);
  }
  for (const pb::Message* layer : LayersOf(description)) {
    const std::string type = TypeOf(*layer);
    LayerNeeds needs;
    if (const auto* row = std::ranges::find(kLayerNeeds, type, &LayerNeeds::type);
        row != std::end(kLayerNeeds)) {
      needs = *row;
    }
    int blobs = 0;
    if (const auto found = blobs_by_name.lower_bound(NameOf(*layer));
        found != blobs_by_name.end() && found->first == NameOf(*layer)) {
      blobs = found->second;
      blobs_by_name.erase(found);
    }
    const int bottoms = Count(*layer, "bottom");
    if (bottoms < needs.min_bottoms || bottoms > needs.max_bottoms || blobs < needs.min_blobs ||
        Count(*layer, "top") - bottoms > needs.max_tops_beyond_bottoms ||
        !IsWithinLimits(*layer, type)) {
      return false;
    }
  }
  return true;
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

}  // namespace

::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path) {
  // What cannot be opened or parsed is left to OpenCV, whose exception names the file.
  const auto read = [&] { return ::cv::dnn::readNetFromCaffe(prototxt_path, caffemodel_path); };
  Format format;
  const auto description = format.NewNet();
  const auto weights = format.NewNet();

  const File text(prototxt_path);
  if (!text.is_open()) return read();
  if (!text.is_regular()) return {};
  if (!ParseText(text, *description)) return read();

  if (!caffemodel_path.empty()) {  // otherwise OpenCV makes a network without weights
    const File model(caffemodel_path);
    if (!model.is_open()) return read();
    if (!model.is_regular()) return {};
    const BinaryWalk walk(model);
    if (walk.is_harmful()) return {};
    if (!walk.is_message() || !weights->ParsePartialFromString(walk.skeleton())) return read();
    if (!HasHonestBlobs(*weights, walk)) return {};
  }
  return IsDescriptionHarmless(*description, *weights) ? read() : ::cv::dnn::Net();
}

::cv::dnn::Net ReadCaffeBinary(const std::string& path) {
  const File model(path);
  if (!model.is_regular()) return {};
  const BinaryWalk walk(model);
  if (!walk.is_message()) return {};
  std::string text;
  {
    Format format;
    const auto net = format.NewNet();
    if (!net->ParsePartialFromString(walk.skeleton()) || !net->IsInitialized() ||
        HasUnknownField(*net) || !IsInKnownForm(*net) || !HasHonestBlobs(*net, walk) ||
        !IsDescriptionHarmless(*net, *net) || !pb::TextFormat::PrintToString(*net, &text)) {
      return {};
    }
  }
  // OpenCV takes a description as text only. The weights it finds in the model itself, by the names
  // of the layers.
  const File description(memfd_create("caffe-description", MFD_CLOEXEC));
  Write(description, text);
  return ::cv::dnn::readNetFromCaffe(description.path(), model.path());
}

}  // namespace velmora::plugin::network::compat
