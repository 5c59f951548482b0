#pragma once

#include "commands.h"

namespace velmora::tool {

struct BenchOptions : CommonOptions {
  int iterations = 200;
  int warmup = 20;
  int batch = 1;
  int transcode = 0;  // seconds; 0 for an ordinary benchmark
};

/// The video evening. Returns the exit status.
int BenchTranscode(const BenchOptions& options);

}  // namespace velmora::tool
