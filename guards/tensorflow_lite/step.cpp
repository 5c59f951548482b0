#include "tensorflow_lite/step.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace velmora::plugin::network::guards {

namespace {

using format::TensorType;

template <typename T>
std::vector<std::int64_t> Numbers(const flatbuffers::Vector<std::uint8_t>& bytes) {
  std::vector<T> numbers(bytes.size() / sizeof(T));
  if (!numbers.empty()) {
    std::memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(T));
  }
  return {numbers.begin(), numbers.end()};
}

}  // namespace

Step::Step(const format::Model& model, const format::SubGraph& graph, const format::Operator& table)
    : buffers_(OrEmpty(model.buffers())), tensors_(OrEmpty(graph.tensors())), table_(table) {
  const auto& codes = OrEmpty(model.operator_codes());
  if (table.opcode_index() < codes.size()) {  // otherwise, the engine refuses it
    const auto* const code = codes[table.opcode_index()];
    code_ = std::max(static_cast<BuiltinOperator>(code->deprecated_builtin_code()),
                     code->builtin_code());
  }
}

std::string Step::Name() const {
  const char* const name = format::EnumNameBuiltinOperator(code_);
  return *name != '\0' ? name : fmt::format("code {}", static_cast<int>(code_));
}

std::vector<std::int64_t> Step::Constant(flatbuffers::uoffset_t input) const {
  const format::Tensor* const tensor = Input(input);
  if (tensor == nullptr || tensor->buffer() >= buffers_.size()) {
    return {};
  }
  const auto& bytes = OrEmpty(buffers_[tensor->buffer()]->data());
  std::vector<std::int64_t> values;  // empty for other types, which the engine refuses
  if (tensor->type() == TensorType::INT64) {
    values = Numbers<std::int64_t>(bytes);
  } else if (tensor->type() == TensorType::INT32) {
    values = Numbers<std::int32_t>(bytes);
  } else if (tensor->type() == TensorType::INT16) {
    values = Numbers<std::int16_t>(bytes);
  } else if (tensor->type() == TensorType::INT8) {
    values = Numbers<std::int8_t>(bytes);
  }
  // The buffer may be longer than the shape requires.
  std::int64_t count = 1;
  for (const std::int64_t size : ShapeOf(tensor)) {
    count = std::clamp<std::int64_t>(count * size, 0, INT32_MAX);
  }
  values.resize(std::min(values.size(), static_cast<std::size_t>(count)));
  return values;
}

std::optional<flatbuffers::uoffset_t> Step::InputOfSizes() const {
  switch (code_) {
    case BuiltinOperator::FILL:
    case BuiltinOperator::RANDOM_STANDARD_NORMAL:
    case BuiltinOperator::RANDOM_UNIFORM:
    case BuiltinOperator::TRANSPOSE_CONV:
      return 0;
    case BuiltinOperator::PAD:
    case BuiltinOperator::PADV2:
    case BuiltinOperator::MIRROR_PAD:
    case BuiltinOperator::TILE:
    case BuiltinOperator::BROADCAST_TO:
    case BuiltinOperator::RESIZE_BILINEAR:
    case BuiltinOperator::RESIZE_NEAREST_NEIGHBOR:
      return 1;
    default:
      return std::nullopt;
  }
}

const format::Tensor* Step::Tensor(const Indices& indices, flatbuffers::uoffset_t i) const {
  return i < indices.size() && static_cast<std::uint32_t>(indices[i]) < tensors_.size()
             ? tensors_[static_cast<std::uint32_t>(indices[i])]
             : nullptr;
}

std::vector<std::int64_t> Step::ShapeOf(const format::Tensor* tensor) {
  if (tensor == nullptr) {
    return {};
  }
  const Indices& shape = OrEmpty(tensor->shape());
  const Indices& signature = OrEmpty(tensor->shape_signature());
  std::vector<std::int64_t> sizes(shape.begin(), shape.end());
  for (flatbuffers::uoffset_t i = 0; i < std::min(shape.size(), signature.size()); ++i) {
    sizes[i] = signature[i] < 0 ? kUnknown : sizes[i];
  }
  return sizes;
}

}  // namespace velmora::plugin::network::guards
