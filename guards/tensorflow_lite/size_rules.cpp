#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/mman.h>

#include <algorithm>
#include <optional>

#include "tensorflow_lite/step.h"

namespace velmora::plugin::network::guards {

namespace {

using format::TensorType;

/// Whether the system grants this much memory, which the engine does not check.
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

/// The engine writes the first repeated value even if an axis of size 0 leaves no room for it.
bool RepeatsNothing(const Step& step, const std::vector<std::int64_t>& sizes) {
  std::vector<std::int64_t> shape = Step::ShapeOf(step.Input(0));
  shape.insert(shape.begin(), sizes.size() - std::min(shape.size(), sizes.size()), 1);
  for (std::size_t i = 0, zeros = 0; i < sizes.size(); ++i) {
    if (zeros != 0 && sizes[i] != shape[i]) {
      return true;
    }
    zeros += sizes[i] == 0 ? 1 : 0;
  }
  return false;
}

bool IsReflection(const Step& step) {
  const auto* const options = step.table().builtin_options_as_MirrorPadOptions();
  return options == nullptr || options->mode() == format::MirrorPadMode::REFLECT;
}

/// Checks the shape that the sizes make of the first input's. Unknown sizes count as 1.
Reason LookAtShape(const Step& step, const std::vector<std::int64_t>& sizes) {
  std::vector<std::int64_t> shape = Step::ShapeOf(step.Input(0));
  switch (step.code()) {
    case BuiltinOperator::PAD:
    case BuiltinOperator::PADV2:
    case BuiltinOperator::MIRROR_PAD:
      shape.resize(std::max(shape.size(), sizes.size() / 2), kUnknown);
      for (std::size_t i = 0; i < sizes.size() / 2; ++i) {
        const std::int64_t padded = std::max(sizes[2 * i], sizes[2 * i + 1]);
        if (step.code() == BuiltinOperator::MIRROR_PAD && shape[i] != kUnknown &&
            padded > std::max(shape[i] - (IsReflection(step) ? 1 : 0), std::int64_t{0})) {
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
    if (size >= 0 && size <= INT32_MAX) {  // a negative size is open, or the engine refuses it
      elements *= size;
    }
    if (size > INT32_MAX || elements > INT32_MAX) {
      return fmt::format("its output of {} has more than {} elements", fmt::join(shape, " x "),
                         INT32_MAX);
    }
  }
  const format::Tensor* const output = step.Output(0);
  const std::size_t bytes = static_cast<std::size_t>(std::max(elements, std::int64_t{1})) *
                            (output == nullptr ? 1 : BytesOf(output->type()));
  return IsGranted(bytes) ? "" : fmt::format("there is no memory for an output of {} bytes", bytes);
}

/// Whether a transposed convolution computes all of its output: the size of the input limits that
/// of the output, and the number of weights is the number of channels.
bool IsFilled(const Step& step, const std::vector<std::int64_t>& output) {
  const auto* const options = step.table().builtin_options_as_TransposeConvOptions();
  const std::vector<std::int64_t> weights = Step::ShapeOf(step.Input(1));
  const std::vector<std::int64_t> input = Step::ShapeOf(step.Input(2));
  if (options == nullptr || output.size() != 4 || weights.size() != 4) {
    return true;  // the engine refuses it
  }
  if (input.size() != 4) {
    return input.empty();  // the engine refuses other ranks, too
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

}  // namespace

Reason LookAtSizes(const Step& step) {
  const std::optional<flatbuffers::uoffset_t> input = step.InputOfSizes();
  const std::vector<std::int64_t> sizes =
      input ? step.Constant(*input) : std::vector<std::int64_t>();
  if (sizes.empty()) {
    return {};  // none, computed, or for a scalar
  }
  const std::int64_t least = step.code() == BuiltinOperator::MIRROR_PAD       ? -INT32_MAX
                             : step.code() == BuiltinOperator::TRANSPOSE_CONV ? 1
                                                                              : 0;
  for (const std::int64_t size : sizes) {
    if (size < least || size > INT32_MAX) {
      return fmt::format("a size of {} must be {} to {}", size, least, INT32_MAX);
    }
  }
  if (step.code() == BuiltinOperator::TRANSPOSE_CONV && !IsFilled(step, sizes)) {
    return fmt::format("its input and weights do not fill an output of {}",
                       fmt::join(sizes, " x "));
  }
  if (step.code() == BuiltinOperator::BROADCAST_TO && RepeatsNothing(step, sizes)) {
    return fmt::format("it repeats an axis behind one of 0 in {}", fmt::join(sizes, " x "));
  }
  return LookAtShape(step, sizes);
}

}  // namespace velmora::plugin::network::guards
