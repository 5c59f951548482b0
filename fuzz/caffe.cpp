// A binary Caffe model, to the backend: by itself, else as the weights of a description. What the
// reader lets through must run, with an image that fits, or fail with an exception.
#include <google/protobuf/io/coded_stream.h>
#include <velmora/plugin/network/dnn_network.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <opencv2/core/utils/logger.hpp>
#include <random>
#include <sstream>
#include <vector>

#include "caffe/caffe_model.h"
#include "protobuf_log.h"
#include "support.h"

using namespace velmora::fuzz;
using namespace velmora::plugin::network;

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace {

constexpr char kDescription[] = R"(
  input: "data" input_dim: 1 input_dim: 1 input_dim: 2 input_dim: 2
  layer { name: "c" type: "Convolution" bottom: "data" top: "c"
    convolution_param { num_output: 2 kernel_size: 1 } }
  layer { name: "i" type: "InnerProduct" bottom: "c" top: "i"
    inner_product_param { num_output: 2 } })";

// ---- changes that leave a message a message: a changed length would end the walk at once --------

struct Field {
  std::uint32_t tag = 0;
  std::string content;  // bytes without their length; other types as they stand

  bool holds_bytes() const { return (tag & 7) == 2; }
};

/// The fields of a message; none if the bytes are not one.
std::vector<Field> Split(const std::string& bytes) {
  google::protobuf::io::CodedInputStream in(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                            static_cast<int>(bytes.size()));
  std::vector<Field> fields;
  while (in.CurrentPosition() < static_cast<int>(bytes.size())) {
    Field& field = fields.emplace_back();
    field.tag = in.ReadTag();
    const int begin = in.CurrentPosition();
    std::uint64_t number = 0;
    int size = 0;
    bool is_whole = false;
    switch (field.tag & 7) {
      case 0:
        is_whole = in.ReadVarint64(&number);
        field.content = bytes.substr(static_cast<std::size_t>(begin),
                                     static_cast<std::size_t>(in.CurrentPosition() - begin));
        break;
      case 2:
        is_whole = in.ReadVarintSizeAsInt(&size) && in.ReadString(&field.content, size);
        break;
      case 1:
      case 5:
        is_whole = in.ReadString(&field.content, (field.tag & 7) == 1 ? 8 : 4);
        break;
      default:
        break;
    }
    if (!is_whole) {
      return {};
    }
  }
  return fields;
}

std::string Varint(std::uint64_t number) {
  std::uint8_t bytes[10];
  return {bytes, google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(number, bytes)};
}

std::string Join(const std::vector<Field>& fields) {
  std::string bytes;
  for (const Field& field : fields) {
    bytes += Varint(field.tag) + (field.holds_bytes() ? Varint(field.content.size()) : "") +
             field.content;
  }
  return bytes;
}

/// Types of layers, those with weights and parameters among them.
std::vector<std::string> Types() {
  std::istringstream names(R"(
      AbsVal Accum ArgMax BatchNorm BNLL Concat ContrastiveLoss Convolution Crop CumSum
      Data Deconvolution DetectionOutput Dropout ELU Eltwise Exp Flatten GRU Identity
      InnerProduct Input Interp LRN LSTM MVN MaxUnpool Normalize PReLU Padding Permute
      Pooling Power PriorBox RNN ReLU ReLU6 Region Reorg Reshape Resize Scale Shift
      ShuffleChannel Sigmoid Silence Slice Softmax Split TanH)");
  return {std::istream_iterator<std::string>(names), {}};
}
const std::vector<std::string> kTypes = Types();

std::string Mutate(std::string bytes, std::minstd_rand& random) {
  std::vector<Field> fields = Split(bytes);
  if (fields.empty() && random() % 4 != 0) {
    return bytes;  // mostly a name, without which a network falls apart
  }
  if (fields.empty() || random() % 8 == 0) {  // a text or a number, or taken for one
    const std::size_t size = bytes.size();
    bytes.resize(size + 8);
    bytes.resize(
        LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(bytes.data()), size, bytes.size()));
    return bytes;
  }
  const auto index = static_cast<std::ptrdiff_t>(random() % fields.size());
  const auto other = static_cast<std::ptrdiff_t>(random() % fields.size());
  Field& field = fields[static_cast<std::size_t>(index)];
  switch (random() % 16) {
    case 0:
      fields.erase(fields.begin() + index);
      break;
    case 1:
      fields.insert(fields.begin() + other, Field(field));
      break;
    case 2:
      std::swap(field, fields[static_cast<std::size_t>(other)]);
      break;
    case 3:
      field.tag = static_cast<std::uint32_t>(random() % 128 << 3) | (field.tag & 7);
      break;
    case 4:
      if (field.tag == (2 << 3 | 2)) {  // the type, in a layer
        field.content = kTypes[random() % kTypes.size()];
      }
      break;
    default:
      if (field.holds_bytes()) {
        field.content = Mutate(field.content, random);
      } else if ((field.tag & 7) == 0) {
        field.content =
            Varint(random() % 2 == 0 ? random() % 40 : std::uint64_t{random()} << random() % 40);
      } else {
        field.content[random() % field.content.size()] = static_cast<char>(random());
      }
  }
  return Join(fields);
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string bytes(data, data + size);
  if (random() % 8 == 0) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  const std::string before = bytes;
  for (int i = 0; i < 16 && bytes == before; ++i) {
    bytes = Mutate(before, random).substr(0, max_size);
  }
  std::copy(bytes.begin(), bytes.end(), data);
  return bytes.size();
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("OPENCV_OPENCL_RUNTIME", "disabled", 1);  // or each child looks for one
  velmora::compat::SilenceProtobuf();
  ::cv::utils::logging::setLogLevel(::cv::utils::logging::LOG_LEVEL_SILENT);
  ::cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
  ::cv::setNumThreads(1);
  return 0;
}

namespace {

/// Whether docs/hostile-models.md says of one of a model's layers that it can end the process.
bool IsLeft(std::string bytes) {
  std::ranges::transform(bytes, bytes.begin(), [](unsigned char c) { return std::tolower(c); });
  return std::ranges::any_of(std::initializer_list<const char*>{"roipooling", "proposal", "accum"},
                             [&](const char* type) { return bytes.find(type) != bytes.npos; });
}

/// An image of the size that a model states, where that is one.
::cv::Mat ImageFor(const std::vector<std::int64_t>& shape) {
  const bool fits = shape.size() == 4 &&
                    std::ranges::all_of(shape, [](auto size) { return size > 0 && size <= 512; }) &&
                    shape[1] * shape[2] * shape[3] <= 1 << 16;
  return fits ? ::cv::Mat(static_cast<int>(shape[2]), static_cast<int>(shape[3]),
                          CV_32FC(static_cast<int>(shape[1])), ::cv::Scalar::all(0.5))
              : ::cv::Mat(2, 2, CV_32FC1, ::cv::Scalar(0.5));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile model;
  static const MemoryFile description;
  model.Set(data, size);
  NetworkConfig config;
  if (guards::RefusalOfCaffeBinary(model.path()).empty()) {
    config.dnn_binary_path = model.path();
  } else {
    description.Set(reinterpret_cast<const std::uint8_t*>(kDescription), sizeof kDescription - 1);
    config.dnn_prototxt_path = description.path();
    config.dnn_caffemodel_path = model.path();
    if (!guards::RefusalOfCaffePair(description.path(), model.path()).empty() ||
        Split(std::string(data, data + size)).empty()) {  // OpenCV cannot parse it either
      return 0;
    }
  }
  const bool is_pair = config.dnn_binary_path.empty();
  const unsigned end = RunModel(
      [&] {
        DnnNetwork(config).Forward(ImageFor(is_pair ? guards::InputOfCaffePair(description.path())
                                                    : guards::InputOfCaffeBinary(model.path())));
      },
      [&] { return IsLeft(std::string(data, data + size)); });
  NoteOutcome(is_pair ? 8 + end : end);
  // OpenCV is without counters: each type of layer in a model that ends so is new to the search.
  const std::string bytes(data, data + size);
  for (unsigned i = 0; i < kTypes.size() && !is_pair; ++i) {
    if (bytes.find(kTypes[i]) != bytes.npos) {
      NoteOutcome(8 * (i + 2) + end);
    }
  }
  return 0;
}
