// Writes small TensorFlow Lite models, for tests and benchmarks.
#pragma once

#include <model_format_generated.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace velmora::test {

namespace format = plugin::network::guards::format;

/// One model of one graph. Tensors are numbered from 0 in the order in which they are added.
class TfLiteWriter {
 public:
  using Operator = format::BuiltinOperator;
  using Type = format::TensorType;
  using Shape = std::vector<std::int32_t>;

  TfLiteWriter();

  int Tensor(const Shape& shape, Type type = Type::FLOAT32);
  int Constant(const Shape& shape, Type type, const void* bytes, std::size_t size);

  /// Of floats, or of integers of 32 or 64 bits.
  template <typename T = float>
  int Constant(const Shape& shape, const std::vector<T>& values) {
    const Type type = std::is_same_v<T, float> ? Type::FLOAT32
                      : sizeof(T) == 4         ? Type::INT32
                                               : Type::INT64;
    return Constant(shape, type, values.data(), values.size() * sizeof(T));
  }
  int Constant(const std::vector<std::int32_t>& values) {
    return Constant({static_cast<std::int32_t>(values.size())}, values);
  }

  void Run(Operator code, const std::vector<std::int32_t>& inputs,
           const std::vector<std::int32_t>& outputs, format::BuiltinOptionsUnion options = {},
           int version = 1);

  /// The same into a new tensor of floats, whose number it returns.
  int Into(const Shape& shape, Operator code, const std::vector<std::int32_t>& inputs,
           format::BuiltinOptionsUnion options = {}, int version = 1) {
    const int output = Tensor(shape);
    Run(code, inputs, {output}, std::move(options), version);
    return output;
  }

  /// The bytes of the file.
  std::string Finish(const std::vector<std::int32_t>& inputs,
                     const std::vector<std::int32_t>& outputs);

  /// What is not said above can be said here.
  format::ModelT model;
};

/// The options of an operator, for Run.
template <typename Table>
format::BuiltinOptionsUnion Options(Table table) {
  format::BuiltinOptionsUnion options;
  options.Set(std::move(table));
  return options;
}

}  // namespace velmora::test
