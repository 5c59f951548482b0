#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engines.h"

namespace velmora::tool {

struct BenchOptions {
  std::string model;
  std::vector<std::string> images;  // empty for a made-up one
  std::optional<Backend> backend;   // none for the factory's choice
  int iterations = 200;
  int warmup = 20;
  int batch = 1;
  int transcode = 0;  // seconds; 0 for an ordinary benchmark
  bool json = false;
};

/// The video evening. Returns the exit status.
int BenchTranscode(const BenchOptions& options);

}  // namespace velmora::tool
