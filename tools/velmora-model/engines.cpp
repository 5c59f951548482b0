#include "engines.h"

#include <fmt/ranges.h>
#include <velmora-plugin-platform/platform.h>
#include <velmora/plugin/network/create_network.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <stdexcept>

#include "common/backends.h"
#include "errors.h"
#include "files.h"

namespace velmora::tool {

namespace {

using plugin::network::BaseNetwork;
using plugin::network::DnnNetwork;
using plugin::network::IeNetwork;
using plugin::network::NetworkConfig;
using plugin::network::TfLiteNetwork;

/// A backend.
struct Kind {
  Backend backend;
  BackendInfo info;
  const char* name_and_version;
  const char* flag;
  bool NetworkConfig::*enabled;
  const char* needs;
  std::vector<std::string> (*files)(const NetworkConfig& config);  // empty when there is no form
  std::unique_ptr<BaseNetwork> (*make)(const NetworkConfig& config);
  InputShape (*input)(const NetworkConfig& config);
  std::string (*reason)(const NetworkConfig& config);  // why it does not load or run
  ShapeReader (*outputs)(const NetworkConfig& config);
};

template <typename Network>
std::unique_ptr<BaseNetwork> Make(const NetworkConfig& config) {
  return std::make_unique<Network>(config);
}

std::vector<std::string> WholeOrNone(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (file.empty()) {
      return {};
    }
  }
  return files;
}

std::vector<std::string> DnnFiles(const NetworkConfig& config) {
  return config.dnn_binary_path.empty()
             ? WholeOrNone({config.dnn_prototxt_path, config.dnn_caffemodel_path})
             : std::vector{config.dnn_binary_path};
}

std::vector<std::string> CpuPair(const NetworkConfig& config) {
  return WholeOrNone({config.ie_cpu_xml_path, config.ie_cpu_bin_path});
}

std::vector<std::string> GpuPair(const NetworkConfig& config) {
  return WholeOrNone({config.ie_gpu_xml_path, config.ie_gpu_bin_path});
}

std::vector<std::string> TfLiteFiles(const NetworkConfig& config) {
  return WholeOrNone({config.tflite_model_path});
}

/// The model with its pair for the GPU in place of the one for the CPU.
NetworkConfig WithGpuPair(NetworkConfig config) {
  config.ie_cpu_xml_path = config.ie_gpu_xml_path;
  config.ie_cpu_bin_path = config.ie_gpu_bin_path;
  return config;
}

std::string IeReasonOnEachDevice(const NetworkConfig& config) {
  const std::string reason = IeReason(config, "CPU");
  const bool has_gpu = plugin::platform::IsSupportedIENetworkGpu() && !GpuPair(config).empty();
  return reason.empty() && has_gpu ? IeReason(WithGpuPair(config), "GPU") : reason;
}

/// In the order in which the factory asks.
constexpr Kind kKinds[] = {
    {Backend::kIe, kInferenceEngine, "Inference Engine (OpenVINO " VELMORA_OPENVINO_VERSION ")",
     "enable_ie", &NetworkConfig::enable_ie, "ie_cpu_xml_path and ie_cpu_bin_path", CpuPair,
     Make<IeNetwork>, IeInput, IeReasonOnEachDevice, IeOutputs},
    {Backend::kTfLite, kTensorFlowLite, "TensorFlow Lite " VELMORA_TENSORFLOW_LITE_VERSION,
     "enable_tflite", &NetworkConfig::enable_tflite, "tflite_model_path", TfLiteFiles,
     Make<TfLiteNetwork>, TfLiteInput, TfLiteReason, TfLiteOutputs},
    {Backend::kDnn, kOpenCv, "OpenCV dnn " CV_VERSION, "enable_dnn", &NetworkConfig::enable_dnn,
     "dnn_binary_path, or dnn_prototxt_path and dnn_caffemodel_path", DnnFiles, Make<DnnNetwork>,
     DnnInput, DnnReason, DnnOutputs}};

/// Calls `make` for a model that has a form of this kind; an error names the file.
template <typename Make>
std::unique_ptr<BaseNetwork> Load(const Kind& kind, const NetworkConfig& config, Make make) {
  std::string failing;
  std::function<std::string()> reason;  // empty until an engine is called
  try {
    const std::vector<std::string> files = kind.files(config);
    for (const std::string& file : files) {
      failing = file;
      CheckReadable(file);
    }
    failing = fmt::format("{}", fmt::join(files, ", "));
    reason = [&] { return kind.reason(config); };
    return make();
  } catch (...) {
    throw std::runtime_error(failing + ": " + CurrentError(reason));
  }
}

/// Why an engine is not on the GPU.
std::string WhyCpu(const NetworkConfig& config, const BaseNetwork& network) {
  if (GpuPair(config).empty()) {
    return "no GPU: the model has no such form";
  }
  return network.ShouldExitAfterShutdown()
             ? "no GPU: a hardware transcode is using it"
             : "no GPU: this machine has none that the engine can use";
}

Engine Describe(const Kind& kind, const NetworkConfig& config, std::unique_ptr<BaseNetwork> network,
                std::vector<std::string> reasons) {
  Engine engine;
  engine.backend = kind.backend;
  engine.id = kind.info.id;
  engine.name = kind.name_and_version;
  engine.outputs = config.output_names;
  if (kind.backend == Backend::kTfLite) {
    engine.outputs = {"output"};  // the first one, whatever its name
  }
  if (const auto* const ie = dynamic_cast<const IeNetwork*>(network.get())) {
    engine.device = [ie] { return ie->GetDevice(); };
    if (engine.device() != "GPU") {
      reasons.push_back(WhyCpu(config, *network));
    }
  }
  const NetworkConfig used = engine.device() == "GPU" ? WithGpuPair(config) : config;
  engine.files = kind.files(used);
  engine.input = kind.input(used);
  engine.reason = [&kind, config] { return kind.reason(config); };
  // Read on demand: most commands need none.
  engine.output_shapes = [&kind, used, read = ShapeReader()](const cv::Mat& image) mutable {
    read = read ? read : kind.outputs(used);
    return read(image);
  };
  engine.why = fmt::format("{}", fmt::join(reasons, "; "));
  engine.network = std::move(network);
  return engine;
}

const Kind& KindOf(Backend backend) {
  for (const Kind& kind : kKinds) {
    if (kind.backend == backend) {
      return kind;
    }
  }
  throw std::logic_error("no such backend");
}

Engine MakeNamed(const Kind& kind, const NetworkConfig& config) {
  if (kind.files(config).empty()) {
    throw std::runtime_error(fmt::format("network needs {}", kind.needs));
  }
  return Describe(kind, config, Load(kind, config, [&] { return kind.make(config); }), {});
}

/// Why the factory must not choose it; empty if it may.
std::string WhyNot(const Kind& kind, const NetworkConfig& config) {
  if (!kind.info.is_supported()) {
    return "this machine does not support it";
  }
  if (kind.files(config).empty()) {
    return "the model has no such form";
  }
  return config.*kind.enabled ? "" : fmt::format("network.{} is off", kind.flag);
}

}  // namespace

std::map<std::string, Backend> BackendsByName() {
  std::map<std::string, Backend> backends;
  for (const Kind& kind : kKinds) {
    backends[kind.info.id] = kind.backend;
  }
  return backends;
}

std::string EngineLines(const Engine& engine) {
  return fmt::format("engine      {}, {}\n{}", engine.name, engine.device(),
                     engine.why.empty() ? "" : fmt::format("why         {}\n", engine.why));
}

Engine MakeEngine(const NetworkConfig& config, std::optional<Backend> backend) {
  if (backend) {
    return MakeNamed(KindOf(*backend), config);
  }
  // The factory knows the machine and the flags, but not which forms the model has.
  NetworkConfig with_forms = config;
  std::vector<std::string> reasons;
  for (const Kind& kind : kKinds) {
    const std::string why_not = WhyNot(kind, config);
    if (why_not.empty()) {
      auto network = Load(kind, config, [&] {
        return std::unique_ptr<BaseNetwork>(plugin::network::CreateNetwork(with_forms));
      });
      return Describe(kind, config, std::move(network), std::move(reasons));
    }
    with_forms.*kind.enabled = false;
    reasons.push_back(fmt::format("no {}: {}", kind.info.name, why_not));
  }
  throw std::runtime_error(fmt::format("{}", fmt::join(reasons, "; ")));
}

std::vector<Form> ListForms(const NetworkConfig& config,
                            const std::function<void(const std::string&)>& left_out) {
  std::vector<Form> forms;
  for (const Kind& kind : kKinds) {
    if (kind.files(config).empty()) {
      continue;
    }
    if (!kind.info.is_supported()) {
      left_out(fmt::format("{}: this machine does not support it", kind.info.name));
      continue;
    }
    NetworkConfig one = config;
    one.ie_gpu_xml_path = one.ie_gpu_bin_path = "";
    forms.push_back({kind.info.id, kind.name_and_version, kind.backend, one});
    if (kind.backend == Backend::kIe && !GpuPair(config).empty()) {
      // This pair on any device: the GPU may be in use, or there may be none.
      forms.back().id = "ie-cpu";
      forms.push_back({"ie-gpu", kind.name_and_version, kind.backend, WithGpuPair(config)});
    }
  }
  return forms;
}

Engine MakeEngine(const Form& form) {
  Engine engine = MakeNamed(KindOf(form.backend), form.config);
  engine.id = form.id;
  return engine;
}

}  // namespace velmora::tool
