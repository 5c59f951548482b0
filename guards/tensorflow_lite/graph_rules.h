// TensorFlow Lite's own verifier only ensures that every offset in a file points into the file. The
// rules here check that the graph makes sense.
#pragma once

#include <string>

namespace velmora::plugin::network::guards {

/// Returns why a model is refused, with the operator, or "". Models are refused if the engine, with
/// XNNPACK used as in its C++ API, would crash or compute garbage; docs/hostile-models.md lists the
/// reasons and what is not detected. The engine can run none of them except some in which two
/// operators write the same tensor. `data` is a file that the engine has verified.
std::string RefusalOfGraphs(const char* data);

}  // namespace velmora::plugin::network::guards
