// The commands. Each returns the program's exit status; a model that cannot be loaded and an
// output that takes no more are exceptions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model.h"

namespace velmora::tool {

struct RunOptions {
  std::string model;
  std::vector<std::string> images;
  std::optional<Backend> backend;  // none for the factory's choice
  int top = 1;
  int batch = 1;
  bool json = false;
  std::string annotate;  // folder; empty for none
  std::string truth;     // file; empty for the truth.csv beside the images
};

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

struct CompareOptions {
  std::string model;
  std::vector<std::string> images;
  bool json = false;
};

struct OutputsOptions {
  std::string model;
  std::vector<std::string> images;
  std::optional<Backend> backend;  // none for the factory's choice
  bool json = false;
  std::string save;  // folder; empty for none
};

struct CheckOptions {
  std::string model;
  int memory = 2048;  // MiB
  int seconds = 60;
  bool json = false;
};

struct CheckFormOptions {
  std::string model;
  std::string form;
  int parent = 0;  // process
};

int Run(const RunOptions& options);
int Bench(const BenchOptions& options);
int Compare(const CompareOptions& options);
int Outputs(const OutputsOptions& options);
int Check(const CheckOptions& options);

/// What Check() starts in a process of its own: reports on one form to it.
int CheckForm(const CheckFormOptions& options);
int BenchTranscode(const BenchOptions& options);

}  // namespace velmora::tool
