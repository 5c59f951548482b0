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
  // Fields of a table, by their numbers, and the table of them.
  const auto number = [&](int field, auto value) {
    return [&out, field, value] { out.AddElement(Field(field), value); };
  };
  const auto offset = [&](int field, auto value) {
    return [&out, field, value] { out.AddOffset(Field(field), value); };
  };
  const auto table = [&](const auto&... fields) {
    const auto start = out.StartTable();
    (fields(), ...);
    return Table(out.EndTable(start));
  };

  std::vector<Table> buffers;
  const auto add_buffer = [&](const std::string& data) {
    out.ForceVectorAlignment(data.size(), 1, 16);
    buffers.push_back(table(offset(0, out.CreateVector(data.data(), data.size()))));
    return static_cast<std::uint32_t>(buffers.size() - 1);
  };
  add_buffer("");  // the first is that of tensors without values
  std::vector<Table> tensors;
  for (const TensorInfo& tensor : tensors_) {
    const std::uint32_t buffer = tensor.data.empty() ? 0 : add_buffer(tensor.data);
    tensors.push_back(table(offset(0, out.CreateVector(tensor.shape)),
                            number(1, static_cast<std::int8_t>(tensor.type)), number(2, buffer)));
  }
  std::vector<Table> codes;
  std::vector<Table> steps;
  for (const Step& step : steps_) {
    codes.push_back(table(number(0, static_cast<std::int8_t>(step.code)),
                          number(2, std::int32_t{step.version}),
                          number(3, std::int32_t{step.code})));
    const Table options = table([&] {
      for (const Option& option : step.options) {
        if (option.kind == Option::kByte) {
          number(option.field, static_cast<std::int8_t>(option.value))();
        } else if (option.kind == Option::kInt) {
          number(option.field, static_cast<std::int32_t>(option.value))();
        } else {
          number(option.field, static_cast<float>(option.value))();
        }
      }
    });
    steps.push_back(table(number(0, static_cast<std::uint32_t>(codes.size() - 1)),
                          offset(1, out.CreateVector(step.inputs)),
                          offset(2, out.CreateVector(&step.output, 1)), [&] {
                            if (step.options_type != 0) {
                              number(3, step.options_type)();
                              offset(4, options)();
                            }
                          }));
  }
  const std::vector<Table> graph = {
      table(offset(0, out.CreateVector(tensors)), offset(1, out.CreateVector(inputs)),
            offset(2, out.CreateVector(outputs)), offset(3, out.CreateVector(steps)))};
  out.Finish(table(number(0, std::uint32_t{3}),  // version of the format
                   offset(1, out.CreateVector(codes)), offset(2, out.CreateVector(graph)),
                   offset(4, out.CreateVector(buffers))),
             "TFL3");
  return {reinterpret_cast<const char*>(out.GetBufferPointer()), out.GetSize()};
}

}  // namespace velmora::test
