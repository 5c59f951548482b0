// A TensorFlow Lite model, to the backend: what neither the engine's verifier nor the library's
// refuses must run, with an image that fits, or fail with an exception.
#include <tensorflow/lite/model.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "support.h"
#include "tensorflow_lite/graph_verifier.h"
#include "tensorflow_lite/step.h"

using namespace velmora::fuzz;
using namespace velmora::plugin::network;

namespace format = guards::format;
using guards::BuiltinOperator;
using guards::Step;

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace {

// ---- what is left, docs/hostile-models.md -------------------------------------------------------

bool HoldsNoFloats(const format::Tensor* tensor) {
  return tensor != nullptr && tensor->type() != format::TensorType::FLOAT32;
}

/// Whether the file has the values by which an operator makes its sizes or places.
bool HasSizes(const Step& step) {
  const bool is_scatter = step.code() == BuiltinOperator::SCATTER_ND;
  if (is_scatter || step.code() == BuiltinOperator::SPARSE_TO_DENSE) {
    return !step.Constant(0).empty() && !step.Constant(is_scatter ? 2 : 1).empty();
  }
  const auto input = step.InputOfSizes();
  return !input || !step.Constant(*input).empty();
}

bool IsLeft(const Step& step, const std::vector<bool>& is_computed) {
  if (step.Name().starts_with("STABLEHLO_")) {
    return true;
  }
  switch (step.code()) {
    case BuiltinOperator::RANGE:
    case BuiltinOperator::ONE_HOT:
    case BuiltinOperator::MULTINOMIAL:
    case BuiltinOperator::BROADCAST_ARGS:
    case BuiltinOperator::LSTM:
    case BuiltinOperator::UNIDIRECTIONAL_SEQUENCE_LSTM:
    case BuiltinOperator::BIDIRECTIONAL_SEQUENCE_LSTM:
    case BuiltinOperator::BIDIRECTIONAL_SEQUENCE_RNN:
    case BuiltinOperator::DILATE:
    case BuiltinOperator::READ_VARIABLE:
    case BuiltinOperator::ASSIGN_VARIABLE:
    case BuiltinOperator::HASHTABLE_FIND:
    case BuiltinOperator::HASHTABLE_IMPORT:
    case BuiltinOperator::HASHTABLE_SIZE:
    case BuiltinOperator::WHILE:
      return true;
    case BuiltinOperator::ADD:
    case BuiltinOperator::SUB:
    case BuiltinOperator::SQUARED_DIFFERENCE:
      if (HoldsNoFloats(step.Output(0))) {
        return true;
      }
      break;
    default:
      break;
  }
  // The type of an output may be a lie.
  if (HoldsNoFloats(step.Output(0)) &&
      (step.Input(0) == nullptr || step.Input(0)->type() != step.Output(0)->type())) {
    return true;
  }
  if (!HasSizes(step)) {
    return true;
  }
  // Of what another operator makes, the shape may be a lie; one may be left open; and one may have
  // more axes than the operator is made for.
  for (flatbuffers::uoffset_t i = 0; i < step.inputs().size(); ++i) {
    const auto shape = Step::ShapeOf(step.Input(i));
    const auto tensor = static_cast<std::size_t>(step.inputs()[i]);
    if (step.Input(i) != nullptr && step.Input(i)->type() == format::TensorType::STRING) {
      return true;  // and so may the type of an input
    }
    if ((tensor < is_computed.size() && is_computed[tensor]) ||
        std::ranges::count(shape, guards::kUnknown) != 0 || shape.size() > 4) {
      return true;
    }
  }
  return false;
}

bool IsLeft(const format::Model& model) {
  for (const auto* const graph : *model.subgraphs()) {
    std::vector<bool> is_computed(guards::OrEmpty(graph->tensors()).size());
    for (const auto* const table : guards::OrEmpty(graph->operators())) {
      const Step step(model, *graph, *table);
      if (IsLeft(step, is_computed)) {
        return true;
      }
      for (const std::int32_t output : step.outputs()) {
        if (static_cast<std::size_t>(output) < is_computed.size()) {
          is_computed[static_cast<std::size_t>(output)] = true;
        }
      }
    }
  }
  return false;
}

// ---- changes that leave a model a model: of changed bytes, the engine refuses most --------------

class Mutator {
 public:
  explicit Mutator(unsigned seed) : random_(seed) {}

  void Mutate(format::ModelT& model) {
    const std::unique_ptr<format::SubGraphT>& graph = OneOf(model.subgraphs);
    switch (random_() % 6) {
      case 0:
        Mutate(OneOf(model.buffers)->data);
        break;
      case 1:
        Mutate(*OneOf(graph->tensors), model.buffers.size());
        break;
      case 2:
        Mutate(random_() % 4 == 0 ? graph->inputs : graph->outputs, graph->tensors.size());
        break;
      case 3:
        Mutate(*OneOf(model.operator_codes));
        break;
      case 4:
        OneOf(graph->operators)->builtin_options = OptionsLike(*OneOf(graph->operators));
        break;
      default: {
        format::OperatorT& step = *OneOf(graph->operators);
        Mutate(random_() % 4 == 0 ? step.outputs : step.inputs, graph->tensors.size());
      }
    }
  }

 private:
  template <typename T>
  T& OneOf(std::vector<T>& elements) {
    if (elements.empty()) {
      throw std::out_of_range("nothing to change");
    }
    return elements[random_() % elements.size()];
  }

  std::int32_t Number() {
    constexpr std::int32_t kNumbers[] = {
        -1,    0,     1,     2,  3,       4,       5,         127,       255,    256,  32767,
        32768, 65535, 65536, -2, 1 << 20, 1 << 30, INT32_MAX, INT32_MIN, -65536, 46341};
    return kNumbers[random_() % (random_() % 2 == 0 ? 7 : std::size(kNumbers))];
  }

  /// Some numbers, in their bytes.
  void Mutate(std::vector<std::uint8_t>& bytes) {
    if (bytes.size() < 4) {
      bytes.resize(4);
    }
    const std::int32_t number = Number();
    std::memcpy(&bytes[random_() % (bytes.size() / 4) * 4], &number, sizeof number);
  }

  /// Tensors, by their index.
  void Mutate(std::vector<std::int32_t>& indices, std::size_t count) {
    const auto index = static_cast<std::int32_t>(random_() % (count + 1)) - 1;
    const unsigned change = random_() % 8;
    if (change == 0 || indices.empty()) {
      indices.push_back(index);
    } else if (change == 1) {
      indices.pop_back();
    } else {
      OneOf(indices) = index;
    }
  }

  void Mutate(format::TensorT& tensor, std::size_t buffers) {
    switch (random_() % 8) {
      case 0:
        tensor.type = static_cast<format::TensorType>(random_() % 18);
        break;
      case 1:
        tensor.buffer = static_cast<std::uint32_t>(random_() % (buffers + 1));
        break;
      case 2:
        tensor.is_variable = !tensor.is_variable;
        break;
      case 3:
        tensor.quantization = std::make_unique<format::QuantizationParametersT>();
        tensor.quantization->scale = {random_() % 4 == 0 ? 0.0F : 0.5F};
        tensor.quantization->zero_point = {Number()};
        break;
      case 4:
        tensor.shape.push_back(1);
        break;
      case 5:
        tensor.shape.resize(tensor.shape.size() / 2);
        break;
      default:
        OneOf(tensor.shape) = Number();
    }
  }

  void Mutate(format::OperatorCodeT& code) {
    code.builtin_code =
        static_cast<BuiltinOperator>(random_() % (static_cast<unsigned>(BuiltinOperator::MAX) + 1));
    code.deprecated_builtin_code =
        static_cast<std::int8_t>(std::min(static_cast<int>(code.builtin_code), 127));
    code.version = random_() % 16 == 0 ? 2 : 1;
  }

  /// Options of the same or of another kind, with other numbers.
  format::BuiltinOptionsUnion OptionsLike(const format::OperatorT& step) {
    format::BuiltinOptionsUnion options;
    const auto padding = static_cast<format::Padding>(random_() % 2);
    switch (random_() % 8) {
      case 0:
        options.Set(format::Conv2DOptionsT{{}, padding, Number(), Number()});
        break;
      case 1:
        options.Set(format::DepthwiseConv2DOptionsT{{}, padding, Number(), Number(), Number()});
        break;
      case 2:
        options.Set(format::Pool2DOptionsT{{}, padding, Number(), Number(), Number(), Number()});
        break;
      case 3:
        options.Set(format::TransposeConvOptionsT{{}, padding, Number(), Number()});
        break;
      case 4:
        options.Set(format::SplitOptionsT{{}, Number()});
        break;
      case 5:
        options.Set(format::DepthToSpaceOptionsT{{}, Number()});
        break;
      case 6:
        options.Set(format::LocalResponseNormalizationOptionsT{{}, Number()});
        break;
      default:
        options = step.builtin_options;
    }
    return options;
  }

  std::minstd_rand random_;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
  flatbuffers::Verifier verifier(data, size);
  if (seed % 4 == 0 || !format::VerifyModelBuffer(verifier)) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  const std::unique_ptr<format::ModelT> model(format::GetModel(data)->UnPack());
  for (const auto& graph : model->subgraphs) {
    for (const auto& step : graph->operators) {  // a kind of options without the options
      if (step->builtin_options.value == nullptr) {
        step->builtin_options.Reset();
      }
      if (step->builtin_options_2.value == nullptr) {
        step->builtin_options_2.Reset();
      }
    }
  }
  Mutator mutator(seed);
  try {
    for (unsigned i = 0; i <= seed / 4 % 4; ++i) {
      mutator.Mutate(*model);
    }
  } catch (const std::out_of_range&) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  flatbuffers::FlatBufferBuilder out;
  format::FinishModelBuffer(out, format::CreateModel(out, model.get()));
  if (out.GetSize() > max_size) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  std::copy_n(out.GetBufferPointer(), out.GetSize(), data);
  return out.GetSize();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  file.Set(data, size);
  compat::GraphVerifier verifier;
  const auto model = tflite::FlatBufferModel::VerifyAndBuildFromFile(
      file.path().c_str(), &verifier, tflite::DefaultErrorReporter());
  TakeLogLines();
  if (!model) {
    return 0;
  }
  const unsigned end = RunModel(
      [] {
        NetworkConfig config;
        config.tflite_model_path = file.path();
        TfLiteNetwork(config).Forward(cv::Mat(300, 300, CV_32FC1, cv::Scalar(0.5)));
      },
      [data] { return IsLeft(*format::GetModel(data)); });
  // The engine is without counters: each operator that comes first is new to the search.
  NoteOutcome(end);
  const format::Model& format = *format::GetModel(data);
  for (const auto* const graph : *format.subgraphs()) {
    for (const auto* const table : guards::OrEmpty(graph->operators())) {
      NoteOutcome(8 + 8 * static_cast<unsigned>(Step(format, *graph, *table).code()) + end);
      return 0;
    }
  }
  return 0;
}
