#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "tensorflow_lite/step.h"

namespace velmora::plugin::network::guards {

namespace {

using format::TensorType;

struct Counts {
  flatbuffers::uoffset_t inputs = 0;
  flatbuffers::uoffset_t outputs = 0;
};

/// The minimum for operators whose tensors the engine or XNNPACK accesses before counting them.
Counts LeastOf(BuiltinOperator code) {
  switch (code) {
    case BuiltinOperator::ASSIGN_VARIABLE:
      return {2, 0};
    case BuiltinOperator::READ_VARIABLE:
    case BuiltinOperator::SIGN:
      return {1, 1};
    case BuiltinOperator::BATCH_MATMUL:
    case BuiltinOperator::SPLIT:
    case BuiltinOperator::STABLEHLO_GATHER:
      return {2, 1};
    case BuiltinOperator::DEPTHWISE_CONV_2D:
    case BuiltinOperator::SLICE:
      return {3, 1};
    case BuiltinOperator::STRIDED_SLICE:
      return {4, 1};
    default:
      return {};
  }
}

/// Whether an operator may lack this input. Which inputs of a recurrent layer belong together is
/// left to the engine.
bool IsOptional(BuiltinOperator code, flatbuffers::uoffset_t input) {
  switch (code) {
    case BuiltinOperator::CONV_2D:
    case BuiltinOperator::DEPTHWISE_CONV_2D:
    case BuiltinOperator::FULLY_CONNECTED:
    case BuiltinOperator::CONV_3D:
      return input == 2;
    case BuiltinOperator::TRANSPOSE_CONV:
    case BuiltinOperator::CONV_3D_TRANSPOSE:
    case BuiltinOperator::SVDF:
      return input == 3;
    case BuiltinOperator::LSTM:
    case BuiltinOperator::UNIDIRECTIONAL_SEQUENCE_LSTM:
    case BuiltinOperator::BIDIRECTIONAL_SEQUENCE_LSTM:
    case BuiltinOperator::BIDIRECTIONAL_SEQUENCE_RNN:
      return input != 0;
    default:  // an operator of the host, or newer than this table
      return code == BuiltinOperator::CUSTOM || code > BuiltinOperator::MAX;
  }
}

Reason LookAtTensors(const Step& step) {
  const auto [inputs, outputs] = LeastOf(step.code());
  if (step.inputs().size() < inputs) {
    return fmt::format("it has {} of {} inputs", step.inputs().size(), inputs);
  }
  if (step.outputs().size() < outputs) {
    return "it has no output";
  }
  for (flatbuffers::uoffset_t i = 0; i < step.inputs().size(); ++i) {
    if (step.inputs()[i] == kNone && !IsOptional(step.code(), i)) {
      return fmt::format("its input {} is missing", i);
    }
  }
  return std::count(step.outputs().begin(), step.outputs().end(), kNone) != 0
             ? "one of its outputs is missing"
             : "";
}

/// Checks operators that divide by the scales of quantised tensors.
Reason LookAtScales(const Step& step) {
  bool has_plain = false;  // whether 16-bit tensors may have no scale
  switch (step.code()) {
    case BuiltinOperator::ADD:
    case BuiltinOperator::EQUAL:
    case BuiltinOperator::NOT_EQUAL:
    case BuiltinOperator::GREATER:
    case BuiltinOperator::GREATER_EQUAL:
    case BuiltinOperator::LESS:
    case BuiltinOperator::LESS_EQUAL:
      has_plain = true;
      break;
    case BuiltinOperator::SUB:
    case BuiltinOperator::SQUARED_DIFFERENCE:
    case BuiltinOperator::LOG:
    case BuiltinOperator::RSQRT:
    case BuiltinOperator::QUANTIZE:
      break;
    default:
      return {};  // elsewhere, a weight that is always 0 may have a scale of 0
  }
  for (flatbuffers::uoffset_t i = 0; i < step.inputs().size() + step.outputs().size(); ++i) {
    const bool is_input = i < step.inputs().size();
    const format::Tensor* const tensor =
        is_input ? step.Input(i) : step.Output(i - step.inputs().size());
    const TensorType type = tensor == nullptr ? TensorType::FLOAT32 : tensor->type();
    if (type != TensorType::INT8 && type != TensorType::UINT8 && type != TensorType::INT16) {
      continue;
    }
    const auto* const quantization = tensor->quantization();
    const auto& scales = OrEmpty(quantization == nullptr ? nullptr : quantization->scale());
    if (scales.size() == 0 ? type != TensorType::INT16 || !has_plain
                           : !std::isnormal(scales[0]) || scales[0] < 0) {
      return "a scale must be finite and positive";
    }
  }
  return {};
}

/// The engine stores strides and dilations in 16 bits.
Reason LookAtConvolution(const Step& step, format::Padding padding,
                         std::initializer_list<std::int32_t> steps) {
  if (padding != format::Padding::SAME && padding != format::Padding::VALID) {
    return "its padding must be SAME or VALID";
  }
  if (std::min(steps) < 1 || std::max(steps) > INT16_MAX) {
    return fmt::format("its strides and dilations must be 1 to {}", INT16_MAX);
  }
  const std::vector<std::int64_t> weights = Step::ShapeOf(step.Input(1));
  if (std::count(weights.begin(), weights.end(), 0) != 0) {
    return "its weights are empty";
  }
  const std::vector<std::int64_t> input = Step::ShapeOf(step.Input(0));
  return step.code() == BuiltinOperator::CONV_2D && weights.size() == 4 && input.size() == 4 &&
                 input[3] / weights[3] > weights[0]
             ? "it has more groups of channels than outputs"
             : "";
}

/// The engine ignores options of another type than the operator's.
Reason LookAtOptions(const Step& step) {
  const format::Operator& table = step.table();
  const BuiltinOperator code = step.code();
  if (const auto* const conv = table.builtin_options_as_Conv2DOptions();
      code == BuiltinOperator::CONV_2D && conv != nullptr) {
    return LookAtConvolution(
        step, conv->padding(),
        {conv->stride_w(), conv->stride_h(), conv->dilation_w_factor(), conv->dilation_h_factor()});
  }
  if (const auto* const depthwise = table.builtin_options_as_DepthwiseConv2DOptions();
      code == BuiltinOperator::DEPTHWISE_CONV_2D && depthwise != nullptr) {
    return LookAtConvolution(step, depthwise->padding(),
                             {depthwise->stride_w(), depthwise->stride_h(),
                              depthwise->dilation_w_factor(), depthwise->dilation_h_factor()});
  }
  if (const auto* const transposed = table.builtin_options_as_TransposeConvOptions();
      code == BuiltinOperator::TRANSPOSE_CONV && transposed != nullptr) {
    return LookAtConvolution(step, transposed->padding(),
                             {transposed->stride_w(), transposed->stride_h()});
  }
  if (const auto* const pool = table.builtin_options_as_Pool2DOptions();
      (code == BuiltinOperator::AVERAGE_POOL_2D || code == BuiltinOperator::MAX_POOL_2D ||
       code == BuiltinOperator::L2_POOL_2D) &&
      pool != nullptr) {
    const std::int32_t least =
        std::min({pool->stride_w(), pool->stride_h(), pool->filter_width(), pool->filter_height()});
    return least < 1 ? "its strides and windows must be at least 1" : "";
  }
  if (code == BuiltinOperator::SPLIT) {
    const auto* const split = table.builtin_options_as_SplitOptions();
    const std::int32_t parts = split == nullptr ? 0 : split->num_splits();
    return static_cast<std::uint32_t>(parts) != step.outputs().size()
               ? fmt::format("it splits into {}", parts)
               : "";
  }
  if (const auto* const lrn = table.builtin_options_as_LocalResponseNormalizationOptions();
      code == BuiltinOperator::LOCAL_RESPONSE_NORMALIZATION && lrn != nullptr) {
    constexpr int kMost = 1 << 24;  // the engine adds this many channels on either side
    return lrn->radius() < 0 || lrn->radius() > kMost
               ? fmt::format("its radius must be 0 to {}", kMost)
               : "";
  }
  if (const auto* const block = table.builtin_options_as_DepthToSpaceOptions();
      code == BuiltinOperator::DEPTH_TO_SPACE && block != nullptr) {
    return block->block_size() > INT16_MAX ? fmt::format("its blocks must be at most {}", INT16_MAX)
                                           : "";
  }
  return {};
}

/// Checks constant indices into an output of constant size.
Reason LookAtPlaces(const Step& step) {
  const bool is_scatter = step.code() == BuiltinOperator::SCATTER_ND;
  if (!is_scatter && step.code() != BuiltinOperator::SPARSE_TO_DENSE) {
    return {};
  }
  const std::vector<std::int64_t> places = step.Constant(0);
  const std::vector<std::int64_t> sizes = step.Constant(is_scatter ? 2 : 1);
  const std::vector<std::int64_t> shape = Step::ShapeOf(step.Input(0));
  const std::size_t axes = is_scatter || shape.size() > 1
                               ? static_cast<std::size_t>(shape.empty() ? 0 : shape.back())
                               : 1;
  for (std::size_t i = 0; axes != 0 && axes <= sizes.size() && i < places.size(); ++i) {
    if (places[i] < 0 || places[i] >= sizes[i % axes]) {
      return fmt::format("a place of {} must be below {}", places[i], sizes[i % axes]);
    }
  }
  return {};
}

}  // namespace

Reason LookAtOperator(const Step& step) {
  for (const auto& look : {LookAtTensors, LookAtScales, LookAtOptions, LookAtPlaces}) {
    if (Reason reason = look(step); !reason.empty()) {
      return reason;
    }
  }
  return {};
}

}  // namespace velmora::plugin::network::guards
