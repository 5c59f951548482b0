#include "tensorflow_lite/graph_verifier.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <model_format_generated.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace velmora::plugin::network::compat {

namespace {

using format::BuiltinOperator;
using format::TensorType;
using Indices = flatbuffers::Vector<std::int32_t>;
using Fault = std::string;  // empty for none

constexpr std::int32_t kNone = -1;     // for the index of a tensor
constexpr std::int64_t kUnknown = -1;  // for a size

/// A vector of a table; an empty one where the table has none.
template <typename Vector>
const Vector& OrEmpty(const Vector* vector) {
  static const std::uint32_t nothing = 0;
  return vector != nullptr ? *vector : *reinterpret_cast<const Vector*>(&nothing);
}

/// Whether the system has this much memory to give. The engine does not look whether it got what it
/// asked for.
bool IsGranted(std::size_t bytes) {
  void* const memory =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory != MAP_FAILED && munmap(memory, bytes) == 0;
}

std::size_t BytesOf(TensorType type) {
  switch (type) {
    case TensorType::COMPLEX128:
      return 16;
    case TensorType::INT64:
    case TensorType::UINT64:
    case TensorType::FLOAT64:
    case TensorType::COMPLEX64:
      return 8;
    case TensorType::FLOAT32:
    case TensorType::INT32:
    case TensorType::UINT32:
      return 4;
    case TensorType::FLOAT16:
    case TensorType::INT16:
    case TensorType::UINT16:
      return 2;
    default:
      return 1;
  }
}

template <typename T>
std::vector<std::int64_t> Numbers(const flatbuffers::Vector<std::uint8_t>& bytes) {
  std::vector<T> numbers(bytes.size() / sizeof(T));
  if (!numbers.empty()) {
    std::memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(T));
  }
  return {numbers.begin(), numbers.end()};
}

/// One operator, and what it reads.
class Step {
 public:
  Step(const format::Model& model, const format::SubGraph& graph, const format::Operator& step)
      : buffers_(OrEmpty(model.buffers())),
        tensors_(OrEmpty(graph.tensors())),
        step_(step),
        inputs_(OrEmpty(step.inputs())) {
    const auto& codes = OrEmpty(model.operator_codes());
    if (step.opcode_index() < codes.size()) {  // else refused by the engine
      const auto* const code = codes[step.opcode_index()];
      code_ = std::max(static_cast<BuiltinOperator>(code->deprecated_builtin_code()),
                       code->builtin_code());
    }
  }

  BuiltinOperator code() const { return code_; }
  std::string Name() const {
    const char* const name = format::EnumNameBuiltinOperator(code_);
    return *name != '\0' ? name : fmt::format("code {}", static_cast<int>(code_));
  }

  Fault Look() const {
    Fault fault = LookAtInputs();
    if (fault.empty()) {
      fault = LookAtOptions();
    }
    return fault.empty() ? LookAtSizes() : fault;
  }

 private:
  Fault LookAtInputs() const {
    flatbuffers::uoffset_t needed = 0;
    switch (code_) {
      case BuiltinOperator::DEPTHWISE_CONV_2D:
        return inputs_.size() == 2 ? "it has no bias" : "";
      case BuiltinOperator::STRIDED_SLICE:
        needed = 4;
        break;
      case BuiltinOperator::RESHAPE:
      case BuiltinOperator::TRANSPOSE:
      case BuiltinOperator::PAD:
      case BuiltinOperator::PADV2:
      case BuiltinOperator::BROADCAST_TO:
      case BuiltinOperator::MEAN:
      case BuiltinOperator::SUM:
      case BuiltinOperator::REDUCE_PROD:
      case BuiltinOperator::REDUCE_MAX:
      case BuiltinOperator::REDUCE_MIN:
      case BuiltinOperator::REDUCE_ANY:
      case BuiltinOperator::REDUCE_ALL:
        needed = 2;
        break;
      default:
        break;
    }
    for (flatbuffers::uoffset_t i = 0; i < std::min(needed, inputs_.size()); ++i) {
      if (inputs_[i] == kNone) {
        return fmt::format("its input {} is missing", i);
      }
    }
    return {};
  }

  Fault LookAtOptions() const {
    // Options of another kind than the operator's are none to the engine.
    const auto* const conv = step_.builtin_options_as_Conv2DOptions();
    if (code_ == BuiltinOperator::CONV_2D && conv != nullptr) {
      return LookAtSteps({conv->stride_w(), conv->stride_h(), conv->dilation_w_factor(),
                          conv->dilation_h_factor()});
    }
    const auto* const depthwise = step_.builtin_options_as_DepthwiseConv2DOptions();
    if (code_ == BuiltinOperator::DEPTHWISE_CONV_2D && depthwise != nullptr) {
      return LookAtSteps({depthwise->stride_w(), depthwise->stride_h(),
                          depthwise->dilation_w_factor(), depthwise->dilation_h_factor()});
    }
    const auto* const transposed = step_.builtin_options_as_TransposeConvOptions();
    if (code_ == BuiltinOperator::TRANSPOSE_CONV && transposed != nullptr) {
      return LookAtSteps({transposed->stride_w(), transposed->stride_h()});
    }
    const auto* const pool = step_.builtin_options_as_Pool2DOptions();
    if ((code_ == BuiltinOperator::AVERAGE_POOL_2D || code_ == BuiltinOperator::MAX_POOL_2D ||
         code_ == BuiltinOperator::L2_POOL_2D) &&
        pool != nullptr) {
      const std::int32_t least = std::min(
          {pool->stride_w(), pool->stride_h(), pool->filter_width(), pool->filter_height()});
      return least < 1 ? "its strides and windows must be at least 1" : "";
    }
    return {};
  }

  /// A convolution's strides and dilations, for which the engine has 16 bits.
  Fault LookAtSteps(std::initializer_list<std::int32_t> steps) const {
    if (std::min(steps) < 1 || std::max(steps) > INT16_MAX) {
      return fmt::format("its strides and dilations must be 1 to {}", INT16_MAX);
    }
    const std::vector<std::int64_t> weights = ShapeOf(Input(1));
    if (std::count(weights.begin(), weights.end(), 0) != 0) {
      return "its weights are empty";
    }
    const std::vector<std::int64_t> input = ShapeOf(Input(0));
    return code_ == BuiltinOperator::CONV_2D && weights.size() == 4 && input.size() == 4 &&
                   input[3] / weights[3] > weights[0]
               ? "it has more groups of channels than outputs"
               : "";
  }

  /// The sizes that an operator takes as the values of a constant, and the shape that they make.
  Fault LookAtSizes() const {
    flatbuffers::uoffset_t at = 1;
    switch (code_) {
      case BuiltinOperator::FILL:
      case BuiltinOperator::TRANSPOSE_CONV:
        at = 0;
        break;
      case BuiltinOperator::PAD:
      case BuiltinOperator::PADV2:
      case BuiltinOperator::MIRROR_PAD:
      case BuiltinOperator::TILE:
      case BuiltinOperator::BROADCAST_TO:
      case BuiltinOperator::RESIZE_BILINEAR:
      case BuiltinOperator::RESIZE_NEAREST_NEIGHBOR:
        break;
      default:
        return {};
    }
    const std::vector<std::int64_t> sizes = Constant(at);
    if (sizes.empty()) {
      return {};  // computed, or a scalar's
    }
    const std::int64_t least = code_ == BuiltinOperator::MIRROR_PAD       ? -INT32_MAX
                               : code_ == BuiltinOperator::TRANSPOSE_CONV ? 1
                                                                          : 0;
    for (const std::int64_t size : sizes) {
      if (size < least || size > INT32_MAX) {
        return fmt::format("a size of {} must be {} to {}", size, least, INT32_MAX);
      }
    }
    if (code_ == BuiltinOperator::TRANSPOSE_CONV && !IsFilled(sizes)) {
      return fmt::format("its input and weights do not fill an output of {}",
                         fmt::join(sizes, " x "));
    }
    if (code_ == BuiltinOperator::BROADCAST_TO && RepeatsNothing(sizes)) {
      return fmt::format("it repeats an axis behind one of 0 in {}", fmt::join(sizes, " x "));
    }
    return LookAtShape(sizes);
  }

  /// The engine writes the first of what it repeats, although the axis before has no place for it.
  bool RepeatsNothing(const std::vector<std::int64_t>& sizes) const {
    std::vector<std::int64_t> shape = ShapeOf(Input(0));
    shape.insert(shape.begin(), sizes.size() - std::min(shape.size(), sizes.size()), 1);
    for (std::size_t i = 0, zeros = 0; i < sizes.size(); ++i) {
      if (zeros != 0 && sizes[i] != shape[i]) {
        return true;
      }
      zeros += sizes[i] == 0 ? 1 : 0;
    }
    return false;
  }

  /// The shape that such sizes make of the first input's. What only a run knows counts as 1.
  Fault LookAtShape(const std::vector<std::int64_t>& sizes) const {
    std::vector<std::int64_t> shape = ShapeOf(Input(0));
    switch (code_) {
      case BuiltinOperator::PAD:
      case BuiltinOperator::PADV2:
      case BuiltinOperator::MIRROR_PAD:
        shape.resize(std::max(shape.size(), sizes.size() / 2), kUnknown);
        for (std::size_t i = 0; i < sizes.size() / 2; ++i) {
          const std::int64_t padded = std::max(sizes[2 * i], sizes[2 * i + 1]);
          if (code_ == BuiltinOperator::MIRROR_PAD && shape[i] != kUnknown &&
              padded > std::max(shape[i] - (IsReflection() ? 1 : 0), std::int64_t{0})) {
            return fmt::format("an axis of {} has no {} to mirror", shape[i], padded);
          }
          shape[i] = std::max(shape[i], std::int64_t{0}) + sizes[2 * i] + sizes[2 * i + 1];
        }
        break;
      case BuiltinOperator::TILE:
        shape.resize(std::max(shape.size(), sizes.size()), kUnknown);
        for (std::size_t i = 0; i < sizes.size(); ++i) {
          shape[i] = (shape[i] == kUnknown ? 1 : shape[i]) * sizes[i];
        }
        break;
      case BuiltinOperator::RESIZE_BILINEAR:
      case BuiltinOperator::RESIZE_NEAREST_NEIGHBOR:
        shape.resize(4, kUnknown);
        if (std::count(shape.begin(), shape.end(), 0) != 0) {
          return "its input is empty";
        }
        std::copy_n(sizes.begin(), std::min<std::size_t>(sizes.size(), 2), shape.begin() + 1);
        break;
      default:
        shape = sizes;
    }
    std::int64_t elements = std::count(shape.begin(), shape.end(), 0) == 0 ? 1 : 0;
    for (const std::int64_t size : shape) {
      if (size >= 0 && size <= INT32_MAX) {  // one below 0 is open, or the engine refuses it
        elements *= size;
      }
      if (size > INT32_MAX || elements > INT32_MAX) {
        return fmt::format("its output of {} has more than {} elements", fmt::join(shape, " x "),
                           INT32_MAX);
      }
    }
    const format::Tensor* const output = Tensor(OrEmpty(step_.outputs()), 0);
    const std::size_t bytes = static_cast<std::size_t>(std::max(elements, std::int64_t{1})) *
                              (output == nullptr ? 1 : BytesOf(output->type()));
    return IsGranted(bytes) ? ""
                            : fmt::format("there is no memory for an output of {} bytes", bytes);
  }

  /// Whether a transposed convolution has a value for every place of its output: the output goes as
  /// many steps as the input has values, and has as many channels as there are weights.
  bool IsFilled(const std::vector<std::int64_t>& output) const {
    const auto* const options = step_.builtin_options_as_TransposeConvOptions();
    const std::vector<std::int64_t> weights = ShapeOf(Input(1));
    const std::vector<std::int64_t> input = ShapeOf(Input(2));
    if (options == nullptr || output.size() != 4 || weights.size() != 4) {
      return true;  // refused by the engine
    }
    if (input.size() != 4) {
      return input.empty();  // the engine refuses others, if they are so
    }
    for (const std::size_t axis : {1U, 2U}) {
      const std::int64_t stride = axis == 1 ? options->stride_h() : options->stride_w();
      const std::int64_t reach =
          options->padding() == format::Padding::VALID ? weights[axis] + stride - 1 : stride;
      if (input[axis] != kUnknown && output[axis] >= (input[axis] - 1) * stride + reach + 1) {
        return false;
      }
    }
    return output[3] == weights[0];
  }

  bool IsReflection() const {
    const auto* const options = step_.builtin_options_as_MirrorPadOptions();
    return options == nullptr || options->mode() == format::MirrorPadMode::REFLECT;
  }

  /// The values of a constant of integers; none for any other tensor.
  std::vector<std::int64_t> Constant(flatbuffers::uoffset_t i) const {
    const format::Tensor* const tensor = Input(i);
    if (tensor == nullptr || tensor->buffer() >= buffers_.size()) {
      return {};
    }
    const auto& bytes = OrEmpty(buffers_[tensor->buffer()]->data());
    std::vector<std::int64_t> values;  // of other types: none, the engine refuses them
    if (tensor->type() == TensorType::INT64) {
      values = Numbers<std::int64_t>(bytes);
    } else if (tensor->type() == TensorType::INT32) {
      values = Numbers<std::int32_t>(bytes);
    } else if (tensor->type() == TensorType::INT16) {
      values = Numbers<std::int16_t>(bytes);
    } else if (tensor->type() == TensorType::INT8) {
      values = Numbers<std::int8_t>(bytes);
    }
    // There may be more bytes than the shape takes.
    std::int64_t count = 1;
    for (const std::int64_t size : ShapeOf(tensor)) {
      count = std::clamp<std::int64_t>(count * size, 0, INT32_MAX);
    }
    values.resize(std::min(values.size(), static_cast<std::size_t>(count)));
    return values;
  }

  const format::Tensor* Input(flatbuffers::uoffset_t i) const { return Tensor(inputs_, i); }

  const format::Tensor* Tensor(const Indices& indices, flatbuffers::uoffset_t i) const {
    return i < indices.size() && static_cast<std::uint32_t>(indices[i]) < tensors_.size()
               ? tensors_[static_cast<std::uint32_t>(indices[i])]
               : nullptr;
  }

  static std::vector<std::int64_t> ShapeOf(const format::Tensor* tensor) {
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

  const flatbuffers::Vector<flatbuffers::Offset<format::Buffer>>& buffers_;
  const flatbuffers::Vector<flatbuffers::Offset<format::Tensor>>& tensors_;
  const format::Operator& step_;
  const Indices& inputs_;
  BuiltinOperator code_ = {};
};

/// Which tensors of a graph have a value, and which may be given one.
class Values {
 public:
  Values(const format::Model& model, const format::SubGraph& graph)
      : tensors_(OrEmpty(graph.tensors())), has_(tensors_.size()), is_made_(tensors_.size()) {
    const auto& buffers = OrEmpty(model.buffers());
    for (flatbuffers::uoffset_t i = 0; i < tensors_.size(); ++i) {
      if (tensors_[i]->buffer() < buffers.size()) {  // else refused by the engine
        const format::Buffer& buffer = *buffers[tensors_[i]->buffer()];
        // Large values stand behind the tables, where an offset leads.
        is_made_[i] = OrEmpty(buffer.data()).size() != 0 || buffer.offset() > 1;
      }
      // A tensor of no elements needs no value.
      const Indices& shape = OrEmpty(tensors_[i]->shape());
      has_[i] = is_made_[i] || tensors_[i]->is_variable() ||
                std::count(shape.begin(), shape.end(), 0) != 0;
    }
  }

  bool Has(std::int32_t tensor) const {
    return tensor == kNone || (IsTensor(tensor) && has_[static_cast<std::size_t>(tensor)]);
  }
  bool HasOtherThanOneDimension(std::int32_t tensor) const {
    return IsTensor(tensor) &&
           OrEmpty(tensors_[static_cast<std::uint32_t>(tensor)]->shape()).size() != 1;
  }
  bool IsMade(std::int32_t tensor) const {
    return tensor != kNone && (!IsTensor(tensor) || is_made_[static_cast<std::size_t>(tensor)]);
  }
  void Make(std::int32_t tensor) {
    if (IsTensor(tensor)) {
      has_[static_cast<std::size_t>(tensor)] = is_made_[static_cast<std::size_t>(tensor)] = true;
    }
  }

 private:
  bool IsTensor(std::int32_t tensor) const {
    return static_cast<std::uint32_t>(tensor) < tensors_.size();
  }

  const flatbuffers::Vector<flatbuffers::Offset<format::Tensor>>& tensors_;
  std::vector<bool> has_;
  std::vector<bool> is_made_;
};

Fault LookAtStep(const Step& step, const format::Operator& table, Values& values) {
  const Indices& inputs = OrEmpty(table.inputs());
  for (flatbuffers::uoffset_t i = 0; i < inputs.size(); ++i) {
    // RESHAPE takes a tensor of any but one dimension for none, and another way to the shape.
    const bool is_unread = step.code() == BuiltinOperator::RESHAPE && i == 1 &&
                           values.HasOtherThanOneDimension(inputs[i]);
    if (!is_unread && !values.Has(inputs[i])) {
      return fmt::format("it reads tensor {}, which has no value yet", inputs[i]);
    }
  }
  for (const std::int32_t output : OrEmpty(table.outputs())) {
    if (values.IsMade(output)) {
      return fmt::format("it writes tensor {}, which has its value already", output);
    }
    values.Make(output);
  }
  return step.Look();
}

Fault LookAtGraph(const format::Model& model, const format::SubGraph& graph, bool is_main) {
  Values values(model, graph);
  const Indices& inputs = OrEmpty(graph.inputs());
  if (is_main && inputs.size() != 0 && values.IsMade(inputs[0])) {
    return fmt::format("its first input, tensor {}, is a constant", inputs[0]);
  }
  const Indices& outputs = OrEmpty(graph.outputs());
  if (is_main && std::count(outputs.begin(), outputs.end(), kNone) != 0) {
    return "one of its outputs is missing";
  }
  for (const std::int32_t input : inputs) {
    values.Make(input);
  }
  const auto& steps = OrEmpty(graph.operators());
  for (flatbuffers::uoffset_t i = 0; i < steps.size(); ++i) {
    const Step step(model, graph, *steps[i]);
    const Fault fault = LookAtStep(step, *steps[i], values);
    if (!fault.empty()) {
      return fmt::format("operator {} ({}): {}", i, step.Name(), fault);
    }
  }
  return {};
}

}  // namespace

bool GraphVerifier::Verify(const char* data, int /*length*/, tflite::ErrorReporter* reporter) {
  const format::Model& model = *format::GetModel(data);
  const auto& graphs = OrEmpty(model.subgraphs());
  for (flatbuffers::uoffset_t i = 0; i < graphs.size(); ++i) {
    const Fault fault = LookAtGraph(model, *graphs[i], i == 0);
    if (!fault.empty()) {
      reporter->Report("Refused: graph %u, %s", i, fault.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace velmora::plugin::network::compat
