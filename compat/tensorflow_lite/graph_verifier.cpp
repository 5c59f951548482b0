#include "tensorflow_lite/graph_verifier.h"

#include <flatbuffers/flatbuffers.h>

#include <cstdint>
#include <vector>

namespace velmora::plugin::network::compat {

namespace {

using flatbuffers::Offset;
using flatbuffers::Table;
using flatbuffers::Vector;
using Tables = Vector<Offset<Table>>;
using Indices = Vector<std::int32_t>;

// Fields of the format's tables by number, as its schema (version 3) has them.
enum ModelField { kSubgraphs = 2, kBuffers = 4 };
enum SubgraphField { kTensors = 0, kInputs = 1, kOutputs = 2, kOperators = 3 };
enum TensorField { kTensorBuffer = 2, kIsVariable = 5 };
enum BufferField { kData = 0, kOffset = 1 };
enum OperatorField { kOpInputs = 1, kOpOutputs = 2, kOptionsType = 3, kOptions = 4 };

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

/// Options that the engine divides by or multiplies with: which fields of which table.
struct Geometry {
  std::uint8_t options_type;
  std::vector<int> fields;
  flatbuffers::uoffset_t least_inputs;
};

const std::vector<Geometry>& Geometries() {
  static const std::vector<Geometry> all = {
      {1, {1, 2, 4, 5}, 3},  // Conv2DOptions: strides, dilations
      {2, {1, 2, 5, 6}, 3},  // DepthwiseConv2DOptions: strides, dilations
      {5, {1, 2, 3, 4}, 1},  // Pool2DOptions: strides, windows
      {49, {1, 2}, 3},       // TransposeConvOptions: strides
  };
  return all;
}

bool IsSound(const Table& step) {
  const auto type = step.GetField<std::uint8_t>(Place(kOptionsType), 0);
  for (const auto& [options_type, fields, least_inputs] : Geometries()) {
    const Table* const options = step.GetPointer<const Table*>(Place(kOptions));
    if (type != options_type || options == nullptr) {
      continue;
    }
    for (const int field : fields) {
      const auto value = options->GetField<std::int32_t>(Place(field), 1);
      if (value < 1 || value > INT16_MAX) {
        return false;
      }
    }
    if (VectorOf<Indices>(step, kOpInputs).size() < least_inputs) {
      return false;
    }
  }
  return true;
}

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

bool Verify(const Table& graph, const Tables& buffers) {
  Values values(VectorOf<Tables>(graph, kTensors), buffers);
  if (!values.Set(VectorOf<Indices>(graph, kInputs))) {
    return false;
  }
  for (const Table* const step : VectorOf<Tables>(graph, kOperators)) {
    if (!IsSound(*step) || !values.AreKnown(VectorOf<Indices>(*step, kOpInputs)) ||
        !values.Set(VectorOf<Indices>(*step, kOpOutputs))) {
      return false;
    }
  }
  return values.AreKnown(VectorOf<Indices>(graph, kOutputs));
}

}  // namespace

bool GraphVerifier::Verify(const char* data, int /*length*/, tflite::ErrorReporter* /*reporter*/) {
  const Table& model = *flatbuffers::GetRoot<Table>(data);
  for (const Table* const graph : VectorOf<Tables>(model, kSubgraphs)) {
    if (!compat::Verify(*graph, VectorOf<Tables>(model, kBuffers))) {
      return false;
    }
  }
  return true;
}

}  // namespace velmora::plugin::network::compat
