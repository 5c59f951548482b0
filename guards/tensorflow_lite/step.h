// One operator of a graph, as it is in a TensorFlow Lite model file.
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

constexpr std::int32_t kNone = -1;     // the index of a missing tensor
constexpr std::int64_t kUnknown = -1;  // a size that is only known at run time

/// Returns a vector of a table, or an empty one if the table does not have it.
template <typename Vector>
const Vector& OrEmpty(const Vector* vector) {
  static const std::uint32_t kNothing = 0;
  return vector != nullptr ? *vector : *reinterpret_cast<const Vector*>(&kNothing);
}

class Step {
 public:
  Step(const format::Model& model, const format::SubGraph& graph, const format::Operator& table);

  BuiltinOperator code() const { return code_; }
  std::string Name() const;
  const format::Operator& table() const { return table_; }
  const Indices& inputs() const { return OrEmpty(table_.inputs()); }
  const Indices& outputs() const { return OrEmpty(table_.outputs()); }

  /// Returns null if there is no such tensor.
  const format::Tensor* Input(flatbuffers::uoffset_t i) const { return Tensor(inputs(), i); }
  const format::Tensor* Output(flatbuffers::uoffset_t i) const { return Tensor(outputs(), i); }

  /// Returns the values of an integer constant, or nothing for any other tensor.
  std::vector<std::int64_t> Constant(flatbuffers::uoffset_t input) const;

  /// The input whose values are the sizes that the operator makes, if it has one.
  std::optional<flatbuffers::uoffset_t> InputOfSizes() const;

  /// Sizes that are only known at run time are kUnknown.
  static std::vector<std::int64_t> ShapeOf(const format::Tensor* tensor);

 private:
  const format::Tensor* Tensor(const Indices& indices, flatbuffers::uoffset_t i) const;

  const flatbuffers::Vector<flatbuffers::Offset<format::Buffer>>& buffers_;
  const flatbuffers::Vector<flatbuffers::Offset<format::Tensor>>& tensors_;
  const format::Operator& table_;
  BuiltinOperator code_ = {};
};

/// Return what of an operator would crash the engine: in its tensors and options, and in the sizes
/// that it reads from a constant.
Reason LookAtOperator(const Step& step);
Reason LookAtSizes(const Step& step);

}  // namespace velmora::plugin::network::guards
