#include "tensorflow_lite/graph_verifier.h"

#include <flatbuffers/flatbuffers.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace velmora::plugin::network::compat {

namespace {

using flatbuffers::Offset;
using flatbuffers::Table;
using flatbuffers::Vector;
using Tables = Vector<Offset<Table>>;
using Indices = Vector<std::int32_t>;

// Fields of the format's tables by number, as its schema (version 3) has them.
enum ModelField { kOperatorCodes = 1, kSubgraphs = 2, kBuffers = 4 };
enum CodeField { kOldCode = 0, kCode = 3 };
enum SubgraphField { kTensors = 0, kInputs = 1, kOutputs = 2, kOperators = 3 };
enum TensorField { kShape = 0, kTensorBuffer = 2, kIsVariable = 5 };
enum BufferField { kData = 0, kOffset = 1 };
enum OperatorField {
  kOpcodeIndex = 0,
  kOpInputs = 1,
  kOpOutputs = 2,
  kOptionsType = 3,
  kOptions = 4
};

constexpr flatbuffers::voffset_t Place(int field) {
  return static_cast<flatbuffers::voffset_t>(4 + 2 * field);
}

/// A vector of a table; an empty one where the table has none.
template <typename T>
const T& VectorOf(const Table& table, int field) {
  static const std::uint32_t nothing = 0;
  const T* const vector = table.GetPointer<const T*>(Place(field));
  return vector != nullptr ? *vector : *reinterpret_cast<const T*>(&nothing);
}

constexpr std::uint8_t kTransposeConvOptions = 49;

/// Options that the engine divides by or multiplies with: which fields of which table.
struct Geometry {
  std::uint8_t options_type;
  std::vector<int> fields;
  flatbuffers::uoffset_t least_inputs;
};

const std::vector<Geometry>& Geometries() {
  static const std::vector<Geometry> all = {
      {1, {1, 2, 4, 5}, 3},                // Conv2DOptions: strides, dilations
      {2, {1, 2, 5, 6}, 3},                // DepthwiseConv2DOptions: strides, dilations
      {5, {1, 2, 3, 4}, 1},                // Pool2DOptions: strides, windows
      {kTransposeConvOptions, {1, 2}, 3},  // TransposeConvOptions: strides
  };
  return all;
}

/// Operators that take sizes as the values of an input: which input, and the least of them.
struct Sizes {
  std::int32_t code;
  flatbuffers::uoffset_t input;
  std::int32_t least;
};

constexpr std::int32_t kTransposeConv = 67;
constexpr Sizes kSizes[] = {
    {23, 1, 1},              // RESIZE_BILINEAR: height and width
    {34, 1, 0},              // PAD: before and after, by axis
    {60, 1, 0},              // PADV2
    {kTransposeConv, 0, 1},  // the shape of its output
    {69, 1, 1},              // TILE: times, by axis
    {94, 0, 0},              // FILL: shape
    {97, 1, 1},              // RESIZE_NEAREST_NEIGHBOR
    {100, 1, 0},             // MIRROR_PAD
    {130, 1, 0},             // BROADCAST_TO: shape
};

bool AreSound(const Table& options, const std::vector<int>& fields) {
  for (const int field : fields) {
    const auto value = options.GetField<std::int32_t>(Place(field), 1);
    if (value < 1 || value > INT16_MAX) {
      return false;
    }
  }
  return true;
}

/// What one graph is looked at with.
class Graph {
 public:
  Graph(const Table& model, const Table& graph)
      : codes_(VectorOf<Tables>(model, kOperatorCodes)),
        buffers_(VectorOf<Tables>(model, kBuffers)),
        tensors_(VectorOf<Tables>(graph, kTensors)) {}

  bool IsSound(const Table& step) const {
    const auto type = step.GetField<std::uint8_t>(Place(kOptionsType), 0);
    const auto* const options = step.GetPointer<const Table*>(Place(kOptions));
    const auto& inputs = VectorOf<Indices>(step, kOpInputs);
    for (const auto& [options_type, fields, least_inputs] : Geometries()) {
      if (type == options_type && options != nullptr &&
          (!AreSound(*options, fields) || inputs.size() < least_inputs)) {
        return false;
      }
    }
    const std::int32_t code = CodeOf(step);
    for (const Sizes& sizes : kSizes) {
      if (code == sizes.code && !AreSizes(inputs, sizes)) {
        return false;
      }
    }
    // Options of another kind than the operator's are none to the engine, and not verified.
    return code != kTransposeConv || type != kTransposeConvOptions || options == nullptr ||
           FitsItsInput(inputs, *options);
  }

 private:
  std::int32_t CodeOf(const Table& step) const {
    const auto index = step.GetField<std::uint32_t>(Place(kOpcodeIndex), 0);
    if (index >= codes_.size()) {
      return -1;  // refused by the engine
    }
    // The old field has one byte, and 127 there leads to the other.
    return std::max<std::int32_t>(codes_[index]->GetField<std::int8_t>(Place(kOldCode), 0),
                                  codes_[index]->GetField<std::int32_t>(Place(kCode), 0));
  }

  /// The values of a constant of 32-bit integers; none for any other tensor.
  std::vector<std::int32_t> Constant(const Indices& inputs, flatbuffers::uoffset_t i) const {
    const Table* const tensor = Tensor(inputs, i);
    const auto buffer =
        tensor == nullptr ? 0 : tensor->GetField<std::uint32_t>(Place(kTensorBuffer), 0);
    if (buffer >= buffers_.size()) {
      return {};
    }
    const auto& data = VectorOf<Vector<std::uint8_t>>(*buffers_[buffer], kData);
    std::vector<std::int32_t> values(data.size() / sizeof(std::int32_t));
    if (!values.empty()) {
      std::memcpy(values.data(), data.data(), values.size() * sizeof(std::int32_t));
    }
    return values;
  }

  const Table* Tensor(const Indices& inputs, flatbuffers::uoffset_t i) const {
    return i < inputs.size() && static_cast<std::size_t>(inputs[i]) < tensors_.size()
               ? tensors_[static_cast<flatbuffers::uoffset_t>(inputs[i])]
               : nullptr;
  }

  bool AreSizes(const Indices& inputs, const Sizes& sizes) const {
    const std::vector<std::int32_t> values = Constant(inputs, sizes.input);
    return std::all_of(values.begin(), values.end(), [&](std::int32_t value) {
      return value >= sizes.least && value <= INT16_MAX;
    });
  }

  /// A transposed convolution is told the size of its output, of which the rest follows.
  bool FitsItsInput(const Indices& inputs, const Table& options) const {
    const std::vector<std::int32_t> output = Constant(inputs, 0);
    const Table* const weights = Tensor(inputs, 1);
    const Table* const input = Tensor(inputs, 2);
    if (output.size() != 4 || weights == nullptr || input == nullptr) {
      return true;
    }
    const auto& kernel = VectorOf<Indices>(*weights, kShape);
    const auto& size = VectorOf<Indices>(*input, kShape);
    if (kernel.size() != 4 || size.size() != 4) {
      return false;
    }
    for (const int axis : {1, 2}) {
      const auto at = static_cast<flatbuffers::uoffset_t>(axis);
      const auto stride = options.GetField<std::int32_t>(Place(axis == 1 ? 2 : 1), 1);
      if (output[at] > std::int64_t{size[at]} * stride + kernel[at]) {
        return false;
      }
    }
    return true;
  }

  const Tables& codes_;
  const Tables& buffers_;
  const Tables& tensors_;
};

/// Which tensors of a graph have a value.
class Values {
 public:
  Values(const Tables& tensors, const Tables& buffers) : known_(tensors.size()) {
    for (flatbuffers::uoffset_t i = 0; i < tensors.size(); ++i) {
      const auto buffer = tensors[i]->GetField<std::uint32_t>(Place(kTensorBuffer), 0);
      if (buffer >= buffers.size()) {
        continue;  // refused by the engine
      }
      // Large values stand behind the tables, where an offset leads.
      known_[i] = tensors[i]->GetField<std::uint8_t>(Place(kIsVariable), 0) != 0 ||
                  VectorOf<Vector<std::uint8_t>>(*buffers[buffer], kData).size() != 0 ||
                  buffers[buffer]->GetField<std::uint64_t>(Place(kOffset), 0) > 1;
    }
  }

  /// False when one of them is to get a value a second time. -1 stands for no tensor.
  bool Set(const Indices& tensors) {
    for (const std::int32_t tensor : tensors) {
      if (tensor == -1) {
        continue;
      }
      const auto i = static_cast<std::size_t>(tensor);
      if (i >= known_.size() || known_[i]) {
        return false;
      }
      known_[i] = true;
    }
    return true;
  }

  bool AreKnown(const Indices& tensors) const {
    for (const std::int32_t tensor : tensors) {
      const auto i = static_cast<std::size_t>(tensor);
      if (tensor != -1 && (i >= known_.size() || !known_[i])) {
        return false;
      }
    }
    return true;
  }

 private:
  std::vector<bool> known_;
};

bool Verify(const Table& model, const Table& table) {
  const Graph graph(model, table);
  Values values(VectorOf<Tables>(table, kTensors), VectorOf<Tables>(model, kBuffers));
  if (!values.Set(VectorOf<Indices>(table, kInputs))) {
    return false;
  }
  for (const Table* const step : VectorOf<Tables>(table, kOperators)) {
    if (!graph.IsSound(*step) || !values.AreKnown(VectorOf<Indices>(*step, kOpInputs)) ||
        !values.Set(VectorOf<Indices>(*step, kOpOutputs))) {
      return false;
    }
  }
  return values.AreKnown(VectorOf<Indices>(table, kOutputs));
}

}  // namespace

bool GraphVerifier::Verify(const char* data, int /*length*/, tflite::ErrorReporter* /*reporter*/) {
  const Table& model = *flatbuffers::GetRoot<Table>(data);
  for (const Table* const graph : VectorOf<Tables>(model, kSubgraphs)) {
    if (!compat::Verify(model, *graph)) {
      return false;
    }
  }
  return true;
}

}  // namespace velmora::plugin::network::compat
