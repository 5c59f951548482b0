#include "support/tflite_writer.h"

#include <algorithm>
#include <memory>

namespace velmora::test {

namespace {

template <typename T>
T& Added(std::vector<std::unique_ptr<T>>& tables) {
  return *tables.emplace_back(std::make_unique<T>());
}

}  // namespace

TfLiteWriter::TfLiteWriter() {
  model.version = 3;
  Added(model.buffers);  // that of tensors without values
  Added(model.subgraphs);
}

int TfLiteWriter::Tensor(const Shape& shape, Type type) {
  auto& tensors = model.subgraphs[0]->tensors;
  format::TensorT& tensor = Added(tensors);
  tensor.shape = shape;
  tensor.type = type;
  return static_cast<int>(tensors.size()) - 1;
}

int TfLiteWriter::Constant(const Shape& shape, Type type, const void* bytes, std::size_t size) {
  const int tensor = Tensor(shape, type);
  const auto* const begin = static_cast<const std::uint8_t*>(bytes);
  Added(model.buffers).data.assign(begin, begin + size);
  model.subgraphs[0]->tensors.back()->buffer = static_cast<unsigned>(model.buffers.size()) - 1;
  return tensor;
}

void TfLiteWriter::Run(Operator code, const std::vector<std::int32_t>& inputs,
                       const std::vector<std::int32_t>& outputs,
                       format::BuiltinOptionsUnion options, int version) {
  format::OperatorCodeT& operator_code = Added(model.operator_codes);
  operator_code.deprecated_builtin_code =
      static_cast<std::int8_t>(std::min(static_cast<int>(code), 127));
  operator_code.builtin_code = code;
  operator_code.version = version;
  format::OperatorT& step = Added(model.subgraphs[0]->operators);
  step.opcode_index = static_cast<std::uint32_t>(model.operator_codes.size()) - 1;
  step.inputs = inputs;
  step.outputs = outputs;
  step.builtin_options = std::move(options);
}

std::string TfLiteWriter::Finish(const std::vector<std::int32_t>& inputs,
                                 const std::vector<std::int32_t>& outputs) {
  model.subgraphs[0]->inputs = inputs;
  model.subgraphs[0]->outputs = outputs;
  flatbuffers::FlatBufferBuilder out;
  format::FinishModelBuffer(out, format::CreateModel(out, &model));
  return {reinterpret_cast<const char*>(out.GetBufferPointer()), out.GetSize()};
}

}  // namespace velmora::test
