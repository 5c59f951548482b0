// Makes Caffe model files for tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::test {

/// The weights of one blob: values drawn evenly from [low, high) by a generator that a model seeds
/// always alike.
struct CaffeBlob {
  std::string layer;
  std::vector<std::int64_t> shape;
  float low = -0.5F;
  float high = 0.5F;
};

/// The bytes of a model in one file, which is also that of the weights of a pair. The blobs stand
/// in the order of their layers. Throws std::runtime_error if the description does not parse or
/// lacks a blob's layer.
std::string MakeCaffeModel(const std::string& prototxt, const std::vector<CaffeBlob>& blobs);

/// One field of a message, for files that no honest writer makes.
std::string VarintField(int number, std::uint64_t value);
std::string BytesField(int number, const std::string& bytes);

}  // namespace velmora::test
