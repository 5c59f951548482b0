// Looks at a model that TensorFlow Lite's own verifier accepts, for what crashes the engine all the
// same. The verifier sees to it that every offset in the file leads somewhere in the file; whether
// the graph makes sense it does not ask.
#pragma once

#include <tensorflow/lite/model.h>

namespace velmora::plugin::network::compat {

/// Accepts a graph in which
///   - every tensor gets its value once, before it is read: it is a constant, an input of the
///   graph,
///     or an output of one operator, and an operator reads what those before it made;
///   - the steps, dilations and windows of convolutions and poolings are 1 to 32767;
///   - sizes that an operator takes as the values of a constant are at most 32767, and that of a
///     transposed convolution's output is one that its input can fill;
///   - a convolution that takes no bias says so by an index of -1.
/// To be called for a file that the engine has verified; docs/hostile-models.md says what the
/// engine does with the others, and what is left.
class GraphVerifier : public tflite::TfLiteVerifier {
 public:
  bool Verify(const char* data, int length, tflite::ErrorReporter* reporter) override;
};

}  // namespace velmora::plugin::network::compat
