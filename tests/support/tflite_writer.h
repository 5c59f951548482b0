// Writes small TensorFlow Lite models, for tests and benchmarks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::test {

/// One model of one graph. Tensors are numbered from 0 in the order in which they are added.
class TfLiteWriter {
 public:
  // Numbers of the format.
  enum Type : std::int8_t { kFloat32 = 0, kInt32 = 2 };
  enum Operator : std::int32_t {
    kConv2D = 3,
    kDepthwiseConv2D = 4,
    kFullyConnected = 9,
    kMul = 18,
    kReshape = 22,
    kSoftmax = 25,
    kGather = 36,
    kMean = 40
  };

  /// An option of an operator: its field and its value. `is_byte` for enumerations.
  struct Option {
    int field;
    double value;
    enum Kind { kByte, kInt, kFloat } kind;
  };

  int Tensor(const std::vector<std::int32_t>& shape, Type type = kFloat32);
  int Constant(const std::vector<std::int32_t>& shape, const std::vector<float>& values);
  int Constant(const std::vector<std::int32_t>& values);

  /// `options_type` is the format's number of the options' table; 0 for none.
  void Run(int code, const std::vector<std::int32_t>& inputs, std::int32_t output,
           std::uint8_t options_type = 0, const std::vector<Option>& options = {}, int version = 1);

  /// The bytes of the file.
  std::string Finish(const std::vector<std::int32_t>& inputs,
                     const std::vector<std::int32_t>& outputs) const;

 private:
  struct TensorInfo {
    std::vector<std::int32_t> shape;
    Type type;
    std::string data;
  };
  struct Step {
    int code;
    int version;
    std::vector<std::int32_t> inputs;
    std::int32_t output;
    std::uint8_t options_type;
    std::vector<Option> options;
  };
  std::vector<TensorInfo> tensors_;
  std::vector<Step> steps_;
};

}  // namespace velmora::test
