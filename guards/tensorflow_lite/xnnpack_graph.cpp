#include "tensorflow_lite/xnnpack_graph.h"

#include <algorithm>
#include <vector>

#include "tensorflow_lite/step.h"

namespace velmora::plugin::network::guards {

namespace {

class Tensors {
 public:
  explicit Tensors(std::size_t count) : has_(count) {}
  /// Returns false if any of them is not a tensor.
  bool Add(const Indices& tensors) {
    bool are_tensors = true;
    for (const std::int32_t tensor : tensors) {
      if (IsTensor(tensor)) {
        has_[static_cast<std::size_t>(tensor)] = true;
      } else {
        are_tensors = false;
      }
    }
    return are_tensors;
  }
  bool HasAnyOf(const Indices& tensors) const {
    return std::any_of(tensors.begin(), tensors.end(), [this](std::int32_t tensor) {
      return IsTensor(tensor) && has_[static_cast<std::size_t>(tensor)];
    });
  }

 private:
  bool IsTensor(std::int32_t tensor) const {
    return static_cast<std::uint32_t>(tensor) < has_.size();
  }
  std::vector<bool> has_;
};

/// XNNPACK unpacks constant weights in advance, into the shape that the file states for the result.
bool HasOtherShape(const Step& step) {
  return (step.code() == BuiltinOperator::DEQUANTIZE || step.code() == BuiltinOperator::DENSIFY) &&
         Step::ShapeOf(step.Input(0)) != Step::ShapeOf(step.Output(0));
}

bool IsForXnnpack(const format::Model& model, const format::SubGraph& graph) {
  const auto& steps = OrEmpty(graph.operators());
  Tensors read(OrEmpty(graph.tensors()).size());
  for (const auto* const step : steps) {
    read.Add(OrEmpty(step->inputs()));
    if (read.HasAnyOf(OrEmpty(step->outputs())) || HasOtherShape(Step(model, graph, *step))) {
      return false;
    }
  }
  Tensors used(OrEmpty(graph.tensors()).size());
  if (!used.Add(OrEmpty(graph.outputs()))) {
    return false;  // the engine then ignores all outputs
  }
  for (flatbuffers::uoffset_t i = steps.size(); i > 0; --i) {
    const Indices& outputs = OrEmpty(steps[i - 1]->outputs());
    if (outputs.size() == 0 || used.HasAnyOf(outputs)) {
      used.Add(OrEmpty(steps[i - 1]->inputs()));
    } else if (read.HasAnyOf(outputs)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool IsGraphForXnnpack(const char* data) {
  const format::Model& model = *format::GetModel(data);
  const auto& graphs = OrEmpty(model.subgraphs());
  return std::all_of(graphs.begin(), graphs.end(), [&model](const format::SubGraph* graph) {
    return IsForXnnpack(model, *graph);
  });
}

}  // namespace velmora::plugin::network::guards
