#include <fcntl.h>
#include <reelhouse/trans_loading.h>
#include <stdlib.h>
#include <unistd.h>
#include <velmora-plugin-platform/platform.h>
#include <velmora/plugin/network/ie_network.h>

#include <algorithm>
#include <cerrno>
#include <inference_engine.hpp>
#include <system_error>
#include <utility>

#include "network/interleave.h"
#include "network/log.h"

namespace velmora::plugin::network {

namespace {

// How long the GPU must be free before a network returns to it.
constexpr std::chrono::seconds kReturnDelay(60);

constexpr const char* kCacheFolder = "/var/packages/Velmora/target/models/openvino_cache";

// Makes Wait() wait for the result. The engine's own constant moved during the 2021 releases.
constexpr std::int64_t kResultReady = -1;

bool IsHardwareTranscoding() {
  const LibReelhouse::TransLoading record;
  return record.IsHardwareTranscoding();
}

}  // namespace

class IeNetwork::InferRequest : public InferenceEngine::InferRequest {
 public:
  explicit InferRequest(const InferenceEngine::InferRequest& request)
      : InferenceEngine::InferRequest(request) {}
};

IeNetwork::IeNetwork(NetworkConfig config) : BaseNetwork(config) {
  // The package's own list of OpenCL drivers, which must be set before anything touches the GPU.
  setenv("OCL_ICD_VENDORS", "/var/packages/Velmora/target/usr/lib/intel.icd", 1);
  gpu_enabled_ = platform::IsSupportedIENetworkGpu() && !config_.ie_gpu_xml_path.empty() &&
                 !config_.ie_gpu_bin_path.empty();
  Initialize();
}

IeNetwork::~IeNetwork() = default;

bool IeNetwork::ShouldExitAfterShutdown() const { return gpu_enabled_; }

void IeNetwork::Initialize() {
  const bool use_gpu = gpu_enabled_ && !IsHardwareTranscoding();
  device_ = use_gpu ? "GPU" : "CPU";
  const std::string xml_path = use_gpu ? config_.ie_gpu_xml_path : config_.ie_cpu_xml_path;
  const std::string bin_path = use_gpu ? config_.ie_gpu_bin_path : config_.ie_cpu_bin_path;

  InferenceEngine::Core core("");
  core.SetConfig({{"CACHE_DIR", kCacheFolder}}, "");
  if (faccessat(AT_FDCWD, kCacheFolder, R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
    LogInfo("[IeNetwork] No model cache: {}: {}", kCacheFolder,
            std::generic_category().message(errno));
  }
  InferenceEngine::CNNNetwork network = core.ReadNetwork(xml_path, bin_path);
  if (network.getInputsInfo().empty()) {
    throw Exception("[IeNetwork] The model has no input");
  }
  if (config_.batch_size == 0) {
    throw Exception("[IeNetwork] The batch size must not be 0");
  }
  network.setBatchSize(config_.batch_size);

  if (config_.input_width != 0 && config_.input_height != 0) {
    auto shapes = network.getInputShapes();
    auto& [name, shape] = *shapes.begin();
    if (shape.size() < 4) {
      throw Exception("[IeNetwork] An input of fewer than four dimensions cannot be reshaped");
    }
    shape[2] = config_.input_height;
    shape[3] = config_.input_width;
    network.reshape(shapes);
  }

  const auto shapes = network.getInputShapes();
  const InferenceEngine::SizeVector& shape = shapes.begin()->second;
  if (std::find(shape.begin(), shape.end(), 0U) != shape.end()) {  // an open dimension
    throw Exception(
        "[IeNetwork] The input leaves sizes open: set both input_width and input_height");
  }

  const InferenceEngine::InputsDataMap inputs = network.getInputsInfo();
  const auto& [input_name, input] = *inputs.begin();
  input->setPrecision(InferenceEngine::Precision::FP32);
  input->setLayout(InferenceEngine::Layout::NCHW);
  input_name_ = input_name;
  for (const auto& [name, output] : network.getOutputsInfo()) {
    output->setPrecision(InferenceEngine::Precision::FP32);
  }

  std::unique_ptr<InferRequest> request;
  try {
    InferenceEngine::ExecutableNetwork executable = core.LoadNetwork(network, device_, {});
    request = std::make_unique<InferRequest>(executable.CreateInferRequest());
  } catch (...) {
    throw Exception("[IeNetwork] Init network failed");
  }
  infer_request_ = std::move(request);
  LogInfo("[IeNetwork] Init network, device: {}", device_);
}

void IeNetwork::SwitchDeviceIfNeeded() {
  if (!gpu_enabled_) {
    return;
  }
  if (device_ == "GPU") {
    if (!IsHardwareTranscoding()) {
      return;
    }
  } else if (device_ == "CPU") {
    if (IsHardwareTranscoding()) {
      waiting_for_gpu_ = false;
      return;
    }
    if (!waiting_for_gpu_) {
      LogDebug("[IeNetwork] Start waiting for gpu");
      waiting_for_gpu_ = true;
      wait_start_ = std::chrono::steady_clock::now();
      return;
    }
    const auto elapsed = std::chrono::steady_clock::now() - wait_start_;
    LogDebug("[IeNetwork] Waiting time diff: {}",
             std::int64_t{std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()});
    if (elapsed < kReturnDelay) {
      return;
    }
    waiting_for_gpu_ = false;
  } else {
    return;
  }
  const std::string before = device_;
  Initialize();
  LogDebug("[IeNetwork] Switch device from {} to {}", before, device_);
}

void IeNetwork::SetInputData(const std::vector<cv::Mat>& images) {
  const InferenceEngine::Blob::Ptr blob = infer_request_->GetBlob(input_name_);
  const InferenceEngine::SizeVector dims = blob->getTensorDesc().getDims();
  const auto memory = std::dynamic_pointer_cast<InferenceEngine::MemoryBlob>(blob);
  if (dims.size() != 4 || !memory) {
    throw Exception("[IeNetwork] The input does not take images");
  }
  const std::size_t batch = dims[0];
  const std::size_t channels = dims[1];
  const std::size_t pixels = dims[2] * dims[3];
  if (images.size() > batch) {
    throw Exception("[IeNetwork] More images than the batch holds");
  }
  for (const cv::Mat& image : images) {
    if (image.depth() != CV_32F || !image.isContinuous() ||
        image.total() * static_cast<std::size_t>(image.channels()) < channels * pixels) {
      throw Exception(
          "[IeNetwork] An image must be continuous 32-bit floats of at least the input's size");
    }
    // A single channel may be any floats. Otherwise the channels must match, because a model with
    // another layout would silently compute noise.
    const auto image_channels = static_cast<std::size_t>(image.channels());
    if (image_channels != 1 && image_channels != channels) {
      throw Exception("[IeNetwork] The image has other channels than the input");
    }
  }

  const auto mapped = memory->wmap();
  auto* const destination = mapped.as<float*>();
  for (std::size_t n = 0; n < images.size(); ++n) {
    InterleavedToPlanes(images[n].ptr<float>(), destination + n * channels * pixels, channels,
                        pixels);
  }
  // Clear the slots without an image, which may contain an earlier one.
  std::fill(destination + images.size() * channels * pixels,
            destination + batch * channels * pixels, 0.0F);
}

std::vector<float> IeNetwork::GetOutputData(const std::string& name) {
  const InferenceEngine::Blob::Ptr blob = infer_request_->GetBlob(name);
  // The name may be that of an input that receives no image: it keeps the model's own type.
  if (blob->byteSize() < blob->size() * sizeof(float)) {
    throw Exception("[IeNetwork] An output must be 32-bit floats");
  }
  const auto* const source = blob->buffer().as<const float*>();
  return {source, source + blob->size()};
}

OutputMap IeNetwork::ReadOutputs() {
  OutputMap result;
  for (const std::string& name : config_.output_names) {
    result[name] = GetOutputData(name);
  }
  return result;
}

void IeNetwork::ForwardAsync(const cv::Mat& image) {
  SwitchDeviceIfNeeded();
  SetInputData({image});
  infer_request_->StartAsync();
}

OutputMap IeNetwork::WaitOutput() {
  infer_request_->Wait(kResultReady);
  return ReadOutputs();
}

std::vector<OutputMap> IeNetwork::Forward(const std::vector<cv::Mat>& images) {
  SwitchDeviceIfNeeded();
  const std::size_t batch = config_.batch_size;
  std::vector<OutputMap> results(images.size());
  for (std::size_t first = 0; first < images.size(); first += batch) {
    const std::size_t chunk = std::min(batch, images.size() - first);
    const auto begin = images.begin() + static_cast<std::ptrdiff_t>(first);
    SetInputData({begin, begin + static_cast<std::ptrdiff_t>(chunk)});
    infer_request_->Infer();
    for (const std::string& name : config_.output_names) {
      const std::vector<float> out = GetOutputData(name);
      const std::size_t per = out.size() / batch;
      for (std::size_t j = 0; j < chunk; ++j) {
        const auto values = out.begin() + static_cast<std::ptrdiff_t>(j * per);
        results[first + j][name].assign(values, values + static_cast<std::ptrdiff_t>(per));
      }
    }
  }
  return results;
}

OutputMap IeNetwork::Forward(const cv::Mat& image) {
  SwitchDeviceIfNeeded();
  SetInputData({image});
  infer_request_->Infer();
  return ReadOutputs();
}

}  // namespace velmora::plugin::network
