// The Inference Engine API of 2021, implemented with OpenVINO's API 2.0 (2024.3 and later, whose
// packages no longer have the old API). Contains only what src/network/ uses. Not compiled where
// the real headers are found.
//
// The bridge keeps these promises of the old API, which the new one does not make.
// docs/architecture.md lists the remaining differences.
//   - An input is named after its layer, an output after the layer that produces it, followed by
//     ".N" if that layer has several outputs. A tensor name is accepted if no layer has the name.
//   - Inputs and outputs are in maps, sorted by name.
//   - Setting the batch size that a model already has changes nothing; another one scales the first
//     dimension of every input in proportion.
//   - A blob's memory is the engine's own, and is written and read in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace InferenceEngine {

using SizeVector = std::vector<std::size_t>;

/// Errors of this API itself; exceptions of the engine pass through.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum Layout : std::uint8_t { NCHW = 1 };

class Precision {
 public:
  enum ePrecision : std::uint8_t { UNSPECIFIED = 255, FP32 = 10 };
  Precision(ePrecision value = UNSPECIFIED) : value_(value) {}  // NOLINT: converts, as in 2021
  operator ePrecision() const { return value_; }

 private:
  ePrecision value_;
};

/// An output.
class Data {
 public:
  void setPrecision(const Precision& precision) { precision_ = precision; }
  Precision getPrecision() const { return precision_; }

 private:
  Precision precision_;
};
using DataPtr = std::shared_ptr<Data>;
using OutputsDataMap = std::map<std::string, DataPtr>;

class InputInfo {
 public:
  using Ptr = std::shared_ptr<InputInfo>;
  void setPrecision(Precision precision) { precision_ = precision; }
  Precision getPrecision() const { return precision_; }
  /// NCHW is the only layout here, and models have it already.
  void setLayout(Layout /*layout*/) {}

 private:
  Precision precision_;
};
using InputsDataMap = std::map<std::string, InputInfo::Ptr>;

class TensorDesc {
 public:
  explicit TensorDesc(SizeVector dims) : dims_(std::move(dims)) {}
  const SizeVector& getDims() const { return dims_; }

 private:
  SizeVector dims_;
};

template <typename T>
class LockedMemory {
 public:
  explicit LockedMemory(void* data) : data_(data) {}
  template <typename S>
  S as() const {
    return static_cast<S>(data_);
  }

 private:
  void* data_;
};

class Blob {
 public:
  using Ptr = std::shared_ptr<Blob>;
  Blob(void* data, SizeVector dims, std::size_t byte_size)
      : data_(data), desc_(std::move(dims)), byte_size_(byte_size) {}
  virtual ~Blob() = default;
  const TensorDesc& getTensorDesc() const { return desc_; }
  std::size_t size() const;  // in elements
  std::size_t byteSize() const { return byte_size_; }
  LockedMemory<void> buffer() const { return LockedMemory<void>(data_); }

 protected:
  void* data_;

 private:
  TensorDesc desc_;
  std::size_t byte_size_;
};

/// Every blob here is one.
class MemoryBlob : public Blob {
 public:
  using Ptr = std::shared_ptr<MemoryBlob>;
  using Blob::Blob;
  LockedMemory<void> wmap() const { return LockedMemory<void>(data_); }
};

class InferRequest {
 public:
  struct Impl;
  InferRequest() = default;
  explicit InferRequest(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

  /// The blob is valid until the next inference.
  Blob::Ptr GetBlob(const std::string& name);
  void Infer();
  void StartAsync();
  void Wait(std::int64_t milliseconds);  // -1, the only value here, waits for the result

 private:
  std::shared_ptr<Impl> impl_;
};

class ExecutableNetwork {
 public:
  struct Impl;
  explicit ExecutableNetwork(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  InferRequest CreateInferRequest();

 private:
  std::shared_ptr<Impl> impl_;
};

class CNNNetwork {
 public:
  /// A dimension that the model leaves open is 0, which the real engine does not have. reshape()
  /// leaves such a dimension open; setBatchSize() sets an open batch.
  using InputShapes = std::map<std::string, SizeVector>;

  struct Impl;
  explicit CNNNetwork(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  void setBatchSize(std::size_t size);
  InputShapes getInputShapes() const;
  void reshape(const InputShapes& shapes);
  InputsDataMap getInputsInfo() const;
  OutputsDataMap getOutputsInfo() const;

 private:
  friend class Core;
  std::shared_ptr<Impl> impl_;
};

class Core {
 public:
  struct Impl;
  explicit Core(const std::string& xml_config_file);

  /// Supports "CACHE_DIR". If the folder cannot be created, there is no cache, because a cache only
  /// makes loading faster and must not prevent it.
  void SetConfig(const std::map<std::string, std::string>& config, const std::string& device);
  CNNNetwork ReadNetwork(const std::string& model_path, const std::string& weights_path);

  /// On the CPU, a network computes in 32-bit floats, for the same results on all machines: by
  /// default the engine, including that of 2021, uses 16 bits if the processor supports it.
  ExecutableNetwork LoadNetwork(const CNNNetwork& network, const std::string& device,
                                const std::map<std::string, std::string>& config);

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace InferenceEngine
