// The library's backends, for both programs.
#pragma once

#include <velmora-plugin-platform/platform.h>

namespace velmora::tool {

struct BackendInfo {
  const char* id;  // for --backend
  const char* name;
  bool (*is_supported)();  // by the machine
};

inline constexpr BackendInfo kInferenceEngine = {"ie", "Inference Engine",
                                                 plugin::platform::IsSupportedIENetwork};
inline constexpr BackendInfo kTensorFlowLite = {"tflite", "TensorFlow Lite",
                                                plugin::platform::IsSupportedTFLiteNetwork};
inline constexpr BackendInfo kOpenCv = {"dnn", "OpenCV dnn", [] { return true; }};

/// In the order in which the library's factory asks.
inline constexpr const BackendInfo* kBackends[] = {&kInferenceEngine, &kTensorFlowLite, &kOpenCv};

}  // namespace velmora::tool
