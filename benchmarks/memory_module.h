// What memory-host and the modules that it loads agree on.
#pragma once

/// One loaded network and an image for it.
class Loaded {
 public:
  Loaded() = default;
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;
  virtual ~Loaded() = default;
  virtual void Forward() = 0;
};

/// Exported by each module as "Load": loads NAME.prototxt and NAME.caffemodel, or the other forms.
/// Null when that fails.
using LoadFunction = Loaded*(const char* name);
