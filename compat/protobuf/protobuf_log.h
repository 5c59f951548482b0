// libprotobuf has its own log up to version 21 and uses Abseil's from 22 on.
#pragma once

#include <google/protobuf/stubs/common.h>
#if GOOGLE_PROTOBUF_VERSION < 4022000
#include <google/protobuf/stubs/logging.h>
#else
#include <absl/base/log_severity.h>
#include <absl/log/globals.h>
#endif

namespace velmora::compat {

/// Keeps libprotobuf from writing to standard error.
inline void SilenceProtobuf() {
#if GOOGLE_PROTOBUF_VERSION < 4022000
  google::protobuf::SetLogHandler(nullptr);
#else
  absl::SetMinLogLevel(absl::LogSeverityAtLeast::kInfinity);
#endif
}

}  // namespace velmora::compat
