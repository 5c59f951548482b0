// TensorFlow Lite's own verifier only ensures that every offset in a file points into the file. The
// rules here check that the graph makes sense.
#pragma once

#include <string>

namespace velmora::plugin::network::guards {

/// Returns why a model is refused, or "". Models are refused if the engine, with XNNPACK used as in
/// its C++ API, would crash or compute garbage. It can run none of them except some in which two
/// operators write the same tensor. The reasons are:
///   - a tensor that two operators write, that one writes although the file has its value, or that
///     is read before it is written;
///   - a first input of the model whose value is in the file and therefore in read-only memory
///     (other inputs are never set);
///   - too few inputs or outputs of an operator, a missing output, or a missing input that is not
///     optional;
///   - graphs that run each other in a circle or are nested too deep;
///   - strides or dilations that do not fit into the engine's 16 bits; empty weights, or more
///     groups than outputs; an empty window; an invalid radius, block, number of parts or scale;
///   - a constant index that is outside the tensor;
///   - a constant size that results in more than 2^31 - 1 elements, the limit of the engine's
///     arithmetic, or in more memory than the system grants;
///   - an output of a transposed convolution that its input cannot fill, or a reflection that is
///     larger than what it reflects.
///
/// The reason names the operator. `data` is a file that the engine has verified.
/// docs/hostile-models.md says what the engine does with such models, and what is not detected.
std::string RefusalOfGraphs(const char* data);

}  // namespace velmora::plugin::network::guards
