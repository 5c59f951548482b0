#include <cstring>
#include <inference_engine.hpp>
#include <openvino/openvino.hpp>
#include <openvino/opsets/opset8.hpp>
#include <utility>

namespace InferenceEngine {

namespace {

/// An input or output of a network: its index in the engine, and what the old API says about it.
template <typename Info>
struct Port {
  std::size_t index;
  std::shared_ptr<Info> info;
};

using Inputs = std::map<std::string, Port<InputInfo>>;
using Outputs = std::map<std::string, Port<Data>>;
using Aliases = std::map<std::string, std::string>;

/// The inputs and outputs by name, and the tensor names by which they may be requested as well.
struct Names {
  Inputs inputs;
  Outputs outputs;
  Aliases tensor_names;
};

Names NamesOf(const ov::Model& model) {
  Names names;
  for (std::size_t i = 0; i < model.inputs().size(); ++i) {
    const std::string name = model.input(i).get_node()->get_friendly_name();
    names.inputs[name] = {i, std::make_shared<InputInfo>()};
    for (const std::string& alias : model.input(i).get_names()) {
      names.tensor_names.emplace(alias, name);
    }
  }
  for (std::size_t i = 0; i < model.outputs().size(); ++i) {
    const ov::Output<ov::Node> source = model.output(i).get_node()->input_value(0);
    std::string name = source.get_node()->get_friendly_name();
    if (source.get_node()->get_output_size() > 1) {
      name += "." + std::to_string(source.get_index());
    }
    names.outputs[name] = {i, std::make_shared<Data>()};
    for (const std::string& alias : model.output(i).get_names()) {
      names.tensor_names.emplace(alias, name);
    }
  }
  return names;
}

/// The first number of a Reshape to a constant shape contains the current batch size. Makes it
/// follow the batch size of the input from now on, in proportion.
void LetReshapesFollowTheBatch(const ov::Model& model) {
  using namespace ov::opset8;
  const auto number = [](std::int64_t value) {
    return Constant::create(ov::element::i64, {1}, {value});
  };
  for (const std::shared_ptr<ov::Node>& node : model.get_ordered_ops()) {
    if (!ov::is_type<Reshape>(node)) {
      continue;
    }
    const auto shape = ov::as_type_ptr<Constant>(node->get_input_node_shared_ptr(1));
    const ov::PartialShape from = node->get_input_partial_shape(0);
    if (!shape || from.rank().is_dynamic() || from.size() < 2 || from[0].is_dynamic()) {
      continue;
    }
    std::vector<std::int64_t> sizes = shape->cast_vector<std::int64_t>();
    if (sizes.size() < 2 || sizes[0] <= 0 || from[0].get_length() == 0) {
      continue;
    }
    const auto batch = std::make_shared<Gather>(std::make_shared<ShapeOf>(node->input_value(0)),
                                                number(0), number(0));
    const auto first = std::make_shared<Divide>(std::make_shared<Multiply>(batch, number(sizes[0])),
                                                number(from[0].get_length()));
    sizes.erase(sizes.begin());
    const auto others = Constant::create(ov::element::i64, {sizes.size()}, sizes);
    node->input(1).replace_source_output(
        std::make_shared<Concat>(ov::OutputVector{first, others}, 0));
  }
}

}  // namespace

struct CNNNetwork::Impl {
  std::shared_ptr<ov::Model> model;
  Names names;
};

struct ExecutableNetwork::Impl {
  ov::CompiledModel model;
  Names names;
};

struct InferRequest::Impl {
  std::shared_ptr<ExecutableNetwork::Impl> network;
  ov::InferRequest request;
};

struct Core::Impl {
  ov::Core core;
  bool caches = false;
};

std::size_t Blob::size() const {
  std::size_t size = 1;
  for (const std::size_t dim : desc_.getDims()) {
    size *= dim;
  }
  return size;
}

Blob::Ptr InferRequest::GetBlob(const std::string& name) {
  const Names& names = impl_->network->names;
  const auto find = [&](const std::string& layer) {
    ov::Tensor tensor;
    if (const auto input = names.inputs.find(layer); input != names.inputs.end()) {
      tensor = impl_->request.get_input_tensor(input->second.index);
    } else if (const auto output = names.outputs.find(layer); output != names.outputs.end()) {
      tensor = impl_->request.get_output_tensor(output->second.index);
    }
    return tensor;
  };
  ov::Tensor tensor = find(name);
  if (!tensor) {
    const auto alias = names.tensor_names.find(name);
    if (alias == names.tensor_names.end()) {
      throw Exception("Failed to find input or output with name: '" + name + "'");
    }
    tensor = find(alias->second);
  }
  return std::make_shared<MemoryBlob>(tensor.data(), tensor.get_shape(), tensor.get_byte_size());
}

void InferRequest::Infer() { impl_->request.infer(); }

void InferRequest::StartAsync() { impl_->request.start_async(); }

void InferRequest::Wait(std::int64_t /*mode*/) { impl_->request.wait(); }

InferRequest ExecutableNetwork::CreateInferRequest() {
  ov::InferRequest request = impl_->model.create_infer_request();
  // Inputs that are never set are zero, so that results are reproducible.
  for (const auto& [name, port] : impl_->names.inputs) {
    ov::Tensor tensor = request.get_input_tensor(port.index);
    std::memset(tensor.data(), 0, tensor.get_byte_size());
  }
  return InferRequest(
      std::make_shared<InferRequest::Impl>(InferRequest::Impl{impl_, std::move(request)}));
}

void CNNNetwork::setBatchSize(std::size_t size) {
  InputShapes shapes = getInputShapes();
  // The model's current batch size. With one dimension or three, the first may be something else.
  std::size_t batch = 1;
  for (const auto& [name, shape] : shapes) {
    if ((shape.size() == 2 || shape.size() > 3) && shape[0] != 0) {
      batch = shape[0];
      break;
    }
  }
  if (batch != size) {
    LetReshapesFollowTheBatch(*impl_->model);
  }
  for (auto& [name, shape] : shapes) {
    if (!shape.empty()) {
      shape[0] = shape[0] == 0 ? size : (shape[0] * size + batch - 1) / batch;  // rounded up
    }
  }
  reshape(shapes);
}

CNNNetwork::InputShapes CNNNetwork::getInputShapes() const {
  InputShapes shapes;
  for (const auto& [name, port] : impl_->names.inputs) {
    SizeVector& shape = shapes[name];
    const ov::PartialShape declared = impl_->model->input(port.index).get_partial_shape();
    if (declared.rank().is_static()) {
      for (const ov::Dimension& dim : declared) {
        shape.push_back(dim.is_static() ? static_cast<std::size_t>(dim.get_length()) : 0);
      }
    }
  }
  return shapes;
}

void CNNNetwork::reshape(const InputShapes& shapes) {
  // Reshaping is slow, because the engine goes through the whole network.
  if (shapes == getInputShapes()) {
    return;
  }
  std::map<std::size_t, ov::PartialShape> ports;
  for (const auto& [name, shape] : shapes) {
    const std::size_t index = impl_->names.inputs.at(name).index;
    ports[index] = impl_->model->input(index).get_partial_shape();
    for (std::size_t i = 0; i < shape.size(); ++i) {
      if (shape[i] != 0) {
        ports[index][static_cast<std::ptrdiff_t>(i)] =
            ov::Dimension(static_cast<std::int64_t>(shape[i]));
      }
    }
  }
  impl_->model->reshape(ports);
}

InputsDataMap CNNNetwork::getInputsInfo() const {
  InputsDataMap infos;
  for (const auto& [name, port] : impl_->names.inputs) {
    infos[name] = port.info;
  }
  return infos;
}

OutputsDataMap CNNNetwork::getOutputsInfo() const {
  OutputsDataMap infos;
  for (const auto& [name, port] : impl_->names.outputs) {
    infos[name] = port.info;
  }
  return infos;
}

Core::Core(const std::string& xml_config_file)
    : impl_(std::make_shared<Impl>(Impl{ov::Core(xml_config_file)})) {}

void Core::SetConfig(const std::map<std::string, std::string>& config,
                     const std::string& /*device*/) {
  try {
    impl_->core.set_property(ov::cache_dir(config.at("CACHE_DIR")));
    impl_->caches = true;
  } catch (const std::exception&) {
    impl_->core.set_property(ov::cache_dir(""));
  }
}

CNNNetwork Core::ReadNetwork(const std::string& model_path, const std::string& weights_path) {
  auto network = std::make_shared<CNNNetwork::Impl>();
  network->model = impl_->core.read_model(model_path, weights_path);
  network->names = NamesOf(*network->model);
  return CNNNetwork(std::move(network));
}

ExecutableNetwork Core::LoadNetwork(const CNNNetwork& network, const std::string& device,
                                    const std::map<std::string, std::string>& /*config*/) {
  const Names& names = network.impl_->names;
  std::shared_ptr<ov::Model> model = network.impl_->model;
  ov::preprocess::PrePostProcessor conversion(model);
  bool converts = false;
  for (const auto& [name, port] : names.inputs) {
    if (port.info->getPrecision() == Precision::FP32 &&
        model->input(port.index).get_element_type() != ov::element::f32) {
      conversion.input(port.index).tensor().set_element_type(ov::element::f32);
      converts = true;
    }
  }
  for (const auto& [name, port] : names.outputs) {
    if (port.info->getPrecision() == Precision::FP32 &&
        model->output(port.index).get_element_type() != ov::element::f32) {
      conversion.output(port.index).tensor().set_element_type(ov::element::f32);
      converts = true;
    }
  }
  if (converts) {
    model = conversion.build();
  }
  ov::AnyMap properties;
  if (device == "CPU") {
    properties.insert(ov::hint::inference_precision(ov::element::f32));
  }
  ov::CompiledModel compiled;
  try {
    compiled = impl_->core.compile_model(model, device, properties);
  } catch (const std::exception&) {
    if (!impl_->caches) {
      throw;
    }
    // To the engine, an unreadable file in the cache is an error.
    impl_->caches = false;
    impl_->core.set_property(ov::cache_dir(""));
    compiled = impl_->core.compile_model(model, device, properties);
  }
  return ExecutableNetwork(
      std::make_shared<ExecutableNetwork::Impl>(ExecutableNetwork::Impl{compiled, names}));
}

}  // namespace InferenceEngine
