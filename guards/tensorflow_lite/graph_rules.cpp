#include "tensorflow_lite/graph_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "tensorflow_lite/step.h"

namespace velmora::plugin::network::guards {

namespace {

/// Which tensors of a graph have a value, and which must not be written any more.
class Values {
 public:
  Values(const format::Model& model, const format::SubGraph& graph)
      : tensors_(OrEmpty(graph.tensors())), has_(tensors_.size()), is_made_(tensors_.size()) {
    const auto& buffers = OrEmpty(model.buffers());
    for (flatbuffers::uoffset_t i = 0; i < tensors_.size(); ++i) {
      if (tensors_[i]->buffer() < buffers.size()) {  // otherwise, the engine refuses it
        const format::Buffer& buffer = *buffers[tensors_[i]->buffer()];
        // Large values are stored behind the tables, at an offset.
        is_made_[i] = OrEmpty(buffer.data()).size() != 0 || buffer.offset() > 1;
      }
      // A tensor without elements needs no value.
      const Indices& shape = OrEmpty(tensors_[i]->shape());
      has_[i] = is_made_[i] || tensors_[i]->is_variable() ||
                std::count(shape.begin(), shape.end(), 0) != 0;
    }
  }

  bool Has(std::int32_t tensor) const {
    return tensor == kNone || (IsTensor(tensor) && has_[static_cast<std::size_t>(tensor)]);
  }
  bool HasOtherThanOneDimension(std::int32_t tensor) const {
    return IsTensor(tensor) &&
           OrEmpty(tensors_[static_cast<std::uint32_t>(tensor)]->shape()).size() != 1;
  }
  bool IsMade(std::int32_t tensor) const {
    return tensor != kNone && (!IsTensor(tensor) || is_made_[static_cast<std::size_t>(tensor)]);
  }
  void Make(std::int32_t tensor) {
    if (IsTensor(tensor)) {
      has_[static_cast<std::size_t>(tensor)] = is_made_[static_cast<std::size_t>(tensor)] = true;
    }
  }

 private:
  bool IsTensor(std::int32_t tensor) const {
    return static_cast<std::uint32_t>(tensor) < tensors_.size();
  }

  const flatbuffers::Vector<flatbuffers::Offset<format::Tensor>>& tensors_;
  std::vector<bool> has_;
  std::vector<bool> is_made_;
};

Reason LookAtStep(const Step& step, Values& values) {
  const Indices& inputs = step.inputs();
  for (flatbuffers::uoffset_t i = 0; i < inputs.size(); ++i) {
    // RESHAPE ignores a shape tensor that is not one-dimensional and uses its options.
    const bool is_unread = step.code() == BuiltinOperator::RESHAPE && i == 1 &&
                           values.HasOtherThanOneDimension(inputs[i]);
    if (!is_unread && !values.Has(inputs[i])) {
      return fmt::format("it reads tensor {}, which has no value yet", inputs[i]);
    }
  }
  for (const std::int32_t output : step.outputs()) {
    if (values.IsMade(output)) {
      return fmt::format("it writes tensor {}, which has its value already", output);
    }
    values.Make(output);
  }
  Reason reason = LookAtOperator(step);
  return reason.empty() ? LookAtSizes(step) : reason;
}

Reason LookAtGraph(const format::Model& model, const format::SubGraph& graph, bool is_main) {
  Values values(model, graph);
  const Indices& inputs = OrEmpty(graph.inputs());
  if (is_main && inputs.size() != 0 && values.IsMade(inputs[0])) {
    return fmt::format("its first input, tensor {}, is a constant", inputs[0]);
  }
  const Indices& outputs = OrEmpty(graph.outputs());
  if (std::count(outputs.begin(), outputs.end(), kNone) != 0) {
    return "one of its outputs is missing";
  }
  for (const std::int32_t input : inputs) {
    values.Make(input);
  }
  const auto& steps = OrEmpty(graph.operators());
  for (flatbuffers::uoffset_t i = 0; i < steps.size(); ++i) {
    const Step step(model, graph, *steps[i]);
    const Reason reason = LookAtStep(step, values);
    if (!reason.empty()) {
      return fmt::format("operator {} ({}): {}", i, step.Name(), reason);
    }
  }
  return {};
}

/// Returns the indices of the graphs that an operator runs.
std::vector<std::int32_t> Calls(const format::Operator& step) {
  if (const auto* const branches = step.builtin_options_as_IfOptions()) {
    return {branches->then_subgraph_index(), branches->else_subgraph_index()};
  }
  if (const auto* const loop = step.builtin_options_as_WhileOptions()) {
    return {loop->cond_subgraph_index(), loop->body_subgraph_index()};
  }
  if (const auto* const once = step.builtin_options_as_CallOnceOptions()) {
    return {once->init_subgraph_index()};
  }
  if (const auto* const composite = step.builtin_options_2_as_StableHLOCompositeOptions()) {
    return {composite->decomposition_subgraph_index()};
  }
  if (const auto* const branches = step.builtin_options_2_as_StablehloCaseOptions()) {
    const Indices& graphs = OrEmpty(branches->branch_subgraph_indices());
    return {graphs.begin(), graphs.end()};
  }
  return {};
}

constexpr int kDeepest = 100;  // nested graphs; the engine has no limit and overflows the stack

/// Returns how deep the calls of a graph are nested, or more than kDeepest if they form a circle.
/// `level` is the depth of the graph itself; `depths` has what is already known, or 0.
int DepthOf(const format::Model& model, std::uint32_t graph, int level, std::vector<int>& depths) {
  if (graph >= depths.size()) {
    return 0;  // the engine refuses it
  }
  if (depths[graph] == 0) {
    depths[graph] = kDeepest + 1;  // in case a call leads back here
    int deepest = level < kDeepest ? 0 : kDeepest;
    for (const auto* const step : OrEmpty((*model.subgraphs())[graph]->operators())) {
      for (const std::int32_t callee : Calls(*step)) {
        if (deepest < kDeepest) {
          deepest = std::max(deepest,
                             DepthOf(model, static_cast<std::uint32_t>(callee), level + 1, depths));
        }
      }
    }
    depths[graph] = deepest + 1;
  }
  return depths[graph];
}

}  // namespace

std::string RefusalOfGraphs(const char* data) {
  const format::Model& model = *format::GetModel(data);
  if (model.subgraphs() == nullptr) {
    return "it has no graphs";
  }
  const auto& graphs = *model.subgraphs();
  std::vector<int> depths(graphs.size());
  for (flatbuffers::uoffset_t i = 0; i < graphs.size(); ++i) {
    const Reason reason =
        i == 0 && DepthOf(model, 0, 0, depths) > kDeepest
            ? fmt::format("graphs in it run each other more than {} deep", kDeepest)
            : LookAtGraph(model, *graphs[i], i == 0);
    if (!reason.empty()) {
      return fmt::format("graph {}, {}", i, reason);
    }
  }
  return {};
}

}  // namespace velmora::plugin::network::guards
