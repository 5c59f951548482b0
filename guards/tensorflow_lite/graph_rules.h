// Looks at a model that TensorFlow Lite's own verifier accepts, for what crashes the engine all the
// same. The verifier sees to it that every offset in the file leads somewhere in the file; whether
// the graph makes sense it does not ask.
#pragma once

#include <string>

namespace velmora::plugin::network::guards {

/// Why a model is refused, empty when it is not: what the engine, with XNNPACK as its C++ API
/// applies it, does not survive, and nothing that it runs:
///   - a tensor that two operators make, that is made although the file has its value, or that is
///     read before it is made;
///   - a first input of the model that has its value in the file, and so in memory that cannot be
///     written; its further inputs are never fed;
///   - fewer inputs or outputs than an operator has; a missing output, or a missing input that the
///     operator cannot go without;
///   - graphs that run each other in a circle;
///   - a step or a dilation that the engine's 16 bits do not hold; weights of nothing, or for more
///     groups than outputs; a window of nothing; a radius, a block or a number of parts, or the
///     scale of a quantised tensor, that cannot be;
///   - a place, given as the value of a constant, that is not in the tensor;
///   - a size, given as the value of a constant, that makes more than 2^31 - 1 elements, which is
///     where the engine's arithmetic ends, or more memory than the system grants;
///   - an output of a transposed convolution that its input cannot fill, or a reflection of more
///     than there is.
/// Says which operator it was. `data` is a file that the engine has verified;
/// docs/hostile-models.md says what the engine does with the others, and what is left.
std::string RefusalOfGraphs(const char* data);

}  // namespace velmora::plugin::network::guards
