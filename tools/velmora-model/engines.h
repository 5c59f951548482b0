// The one place that knows the backends: for which of them a model has a form, which one is used,
// and why.
#pragma once

#include <velmora/plugin/network/base_network.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "inputs.h"

namespace velmora::tool {

enum class Backend { kDnn, kIe, kTfLite };

/// A network, and what the commands print about it.
struct Engine {
  std::unique_ptr<plugin::network::BaseNetwork> network;
  Backend backend = Backend::kDnn;
  std::string id;    // short: "dnn", "ie", "tflite"; "ie-cpu" and "ie-gpu" for one pair of the two
  std::string name;  // with the version
  std::function<std::string()> device = [] { return "CPU"; };  // that the network is on now
  std::string why;                 // this engine and this device; empty when it is the first choice
  std::vector<std::string> files;  // that the network was loaded from
  InputShape input;
  std::function<std::string()> reason;  // why it does not run, see inputs.h
  ShapeReader output_shapes;
  std::vector<std::string> outputs;  // keys of the network's maps, in the order of output_names
};

/// The backends by the names that users give them.
std::map<std::string, Backend> BackendsByName();

/// Which engine, which device and why, for the user to read.
std::string EngineLines(const Engine& engine);

/// The network that the library's factory builds for this configuration, or one of `backend`.
/// Throws std::runtime_error, with the files at fault, when there is none.
Engine MakeEngine(const plugin::network::NetworkConfig& config, std::optional<Backend> backend);

/// A form that the model has, without its network.
struct Form {
  std::string id;  // as that of the engine
  std::string engine;
  Backend backend;
  plugin::network::NetworkConfig config;  // of this form alone
};

/// The forms that the model has, whatever its flags say; the pairs of the Inference Engine count as
/// two. `left_out` is told of a form whose engine this machine does not support.
std::vector<Form> ListForms(const plugin::network::NetworkConfig& config,
                            const std::function<void(const std::string&)>& left_out);

/// Its engine; throws as MakeEngine().
Engine MakeEngine(const Form& form);

}  // namespace velmora::tool
