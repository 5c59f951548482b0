// What the programs that compare the library with the same work by hand agree on with the modules
// that they load, one for each side.
#pragma once

#include <vector>

/// A network in the files NAME.xml and NAME.bin, or another form, and what it is to run on.
struct Task {
  const char* name;
  int width;
  int height;
  int batch;
  const char* device;  // "CPU" or "GPU"
};

/// One loaded network with made-up images for it, which are the same on both sides.
class Side {
 public:
  Side() = default;
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;
  virtual ~Side() = default;
  virtual void Forward() = 0;
  /// The last Forward's: of all images, one behind the other.
  virtual std::vector<float> Answers() const = 0;
};

/// Exported by each module as "Load". Null when that fails.
using LoadFunction = Side*(const Task& task);
