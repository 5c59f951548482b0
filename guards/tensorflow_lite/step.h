// One operator of a graph, as a TensorFlow Lite model file describes it.
#pragma once

#include <model_format_generated.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora::plugin::network::guards {

using format::BuiltinOperator;
using Indices = flatbuffers::Vector<std::int32_t>;
using Reason = std::string;  // empty for none

constexpr std::int32_t kNone = -1;     // for the index of a tensor
constexpr std::int64_t kUnknown = -1;  // for a size

/// A vector of a table; an empty one where the table has none.
template <typename Vector>
const Vector& OrEmpty(const Vector* vector) {
  static const std::uint32_t nothing = 0;
  return vector != nullptr ? *vector : *reinterpret_cast<const Vector*>(&nothing);
}

class Step {
 public:
  Step(const format::Model& model, const format::SubGraph& graph, const format::Operator& table);

  BuiltinOperator code() const { return code_; }
  std::string Name() const;
  const format::Operator& table() const { return table_; }
  const Indices& inputs() const { return OrEmpty(table_.inputs()); }
  const Indices& outputs() const { return OrEmpty(table_.outputs()); }

  /// Null where there is none.
  const format::Tensor* Input(flatbuffers::uoffset_t i) const { return Tensor(inputs(), i); }
  const format::Tensor* Output(flatbuffers::uoffset_t i) const { return Tensor(outputs(), i); }

  /// The values of a constant of integers; none for any other tensor.
  std::vector<std::int64_t> Constant(flatbuffers::uoffset_t input) const;

  /// The input whose values are the sizes that the operator makes, if it has one.
  std::optional<flatbuffers::uoffset_t> InputOfSizes() const;

  /// With kUnknown for a size that only a run knows.
  static std::vector<std::int64_t> ShapeOf(const format::Tensor* tensor);

 private:
  const format::Tensor* Tensor(const Indices& indices, flatbuffers::uoffset_t i) const;

  const flatbuffers::Vector<flatbuffers::Offset<format::Buffer>>& buffers_;
  const flatbuffers::Vector<flatbuffers::Offset<format::Tensor>>& tensors_;
  const format::Operator& table_;
  BuiltinOperator code_ = {};
};

/// What of an operator the engine does not survive: in its tensors and options, and in the sizes
/// that it makes of a constant.
Reason LookAtOperator(const Step& step);
Reason LookAtSizes(const Step& step);

}  // namespace velmora::plugin::network::guards
