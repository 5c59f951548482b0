#include "support/tflite_writer.h"

#include <flatbuffers/flatbuffers.h>

namespace velmora::test {

namespace {

// Where the format keeps a table's n-th field.
constexpr flatbuffers::voffset_t Field(int n) {
  return static_cast<flatbuffers::voffset_t>(4 + 2 * n);
}

template <typename T>
std::string Bytes(const std::vector<T>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

}  // namespace

int TfLiteWriter::Tensor(const std::vector<std::int32_t>& shape, Type type) {
  tensors_.push_back({shape, type, ""});
  return static_cast<int>(tensors_.size()) - 1;
}

int TfLiteWriter::Constant(const std::vector<std::int32_t>& shape,
                           const std::vector<float>& values) {
  tensors_.push_back({shape, kFloat32, Bytes(values)});
  return static_cast<int>(tensors_.size()) - 1;
}

int TfLiteWriter::Constant(const std::vector<std::int32_t>& values) {
  tensors_.push_back({{static_cast<std::int32_t>(values.size())}, kInt32, Bytes(values)});
  return static_cast<int>(tensors_.size()) - 1;
}

void TfLiteWriter::Run(int code, const std::vector<std::int32_t>& inputs, std::int32_t output,
                       std::uint8_t options_type, const std::vector<Option>& options, int version) {
  steps_.push_back({code, version, inputs, output, options_type, options});
}

std::string TfLiteWriter::Finish(const std::vector<std::int32_t>& inputs,
                                 const std::vector<std::int32_t>& outputs) const {
  flatbuffers::FlatBufferBuilder out;
  using Table = flatbuffers::Offset<flatbuffers::Table>;
  std::vector<Table> buffers;
  const auto add_buffer = [&](const std::string& data) {
    out.ForceVectorAlignment(data.size(), 1, 16);
    const auto vector =
        out.CreateVector(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
    const auto start = out.StartTable();
    out.AddOffset(Field(0), vector);
    buffers.emplace_back(out.EndTable(start));
  };
  add_buffer("");  // the first is that of tensors without values
  std::vector<Table> tensors;
  for (const TensorInfo& tensor : tensors_) {
    if (!tensor.data.empty()) {
      add_buffer(tensor.data);
    }
    const auto shape = out.CreateVector(tensor.shape);
    const auto start = out.StartTable();
    out.AddOffset(Field(0), shape);
    out.AddElement<std::int8_t>(Field(1), tensor.type, 0);
    out.AddElement<std::uint32_t>(
        Field(2), tensor.data.empty() ? 0 : static_cast<std::uint32_t>(buffers.size() - 1), 0);
    tensors.emplace_back(out.EndTable(start));
  }
  std::vector<Table> codes;
  std::vector<Table> steps;
  for (const Step& step : steps_) {
    auto start = out.StartTable();
    out.AddElement<std::int8_t>(Field(0), static_cast<std::int8_t>(step.code), 0);
    out.AddElement<std::int32_t>(Field(2), step.version, 0);
    out.AddElement<std::int32_t>(Field(3), step.code, 0);
    codes.emplace_back(out.EndTable(start));

    start = out.StartTable();
    for (const Option& option : step.options) {
      if (option.kind == Option::kByte) {
        out.AddElement(Field(option.field), static_cast<std::int8_t>(option.value));
      } else if (option.kind == Option::kInt) {
        out.AddElement(Field(option.field), static_cast<std::int32_t>(option.value));
      } else {
        out.AddElement(Field(option.field), static_cast<float>(option.value));
      }
    }
    const Table options(out.EndTable(start));
    const auto step_inputs = out.CreateVector(step.inputs);
    const auto step_outputs = out.CreateVector(&step.output, 1);
    start = out.StartTable();
    out.AddElement<std::uint32_t>(Field(0), static_cast<std::uint32_t>(codes.size() - 1), 0);
    out.AddOffset(Field(1), step_inputs);
    out.AddOffset(Field(2), step_outputs);
    if (step.options_type != 0) {
      out.AddElement<std::uint8_t>(Field(3), step.options_type, 0);
      out.AddOffset(Field(4), options);
    }
    steps.emplace_back(out.EndTable(start));
  }
  const auto all_tensors = out.CreateVector(tensors);
  const auto graph_inputs = out.CreateVector(inputs);
  const auto graph_outputs = out.CreateVector(outputs);
  const auto all_steps = out.CreateVector(steps);
  auto start = out.StartTable();
  out.AddOffset(Field(0), all_tensors);
  out.AddOffset(Field(1), graph_inputs);
  out.AddOffset(Field(2), graph_outputs);
  out.AddOffset(Field(3), all_steps);
  const std::vector<Table> graph{Table(out.EndTable(start))};
  const auto graphs = out.CreateVector(graph);
  const auto all_codes = out.CreateVector(codes);
  const auto all_buffers = out.CreateVector(buffers);
  start = out.StartTable();
  out.AddElement<std::uint32_t>(Field(0), 3, 0);  // version of the format
  out.AddOffset(Field(1), all_codes);
  out.AddOffset(Field(2), graphs);
  out.AddOffset(Field(4), all_buffers);
  out.Finish(Table(out.EndTable(start)), "TFL3");
  return {reinterpret_cast<const char*>(out.GetBufferPointer()), out.GetSize()};
}

}  // namespace velmora::test
