#pragma once

#include <tensorflow/lite/model.h>

#include <string>

#include "tensorflow_lite/graph_rules.h"

namespace velmora::plugin::network::compat {

/// Refuses what guards::RefusalOfGraphs() refuses, and reports the reason.
class GraphVerifier : public tflite::TfLiteVerifier {
 public:
  bool Verify(const char* data, int /*length*/, tflite::ErrorReporter* reporter) override {
    const std::string reason = guards::RefusalOfGraphs(data);
    if (!reason.empty()) {
      reporter->Report("Refused: %s", reason.c_str());
    }
    return reason.empty();
  }
};

}  // namespace velmora::plugin::network::compat
