// The dnn API of OpenCV 3.2, over OpenCV 3.3 to 4.x.
//
// src/network/ is written against 3.2, where a caller sets the input, runs the network and then
// fetches outputs by name: Blob, Net::setBlob, Net::forward, Net::getBlob. 3.3 replaced these by
// setInput and forward(outputs, names). This header is found before OpenCV's own of the same name
// and adds the old interface beside the new one.
//
// The names stand in a namespace `cv` inside the library's, where the code of src/network/ finds
// them first; all other names of OpenCV are seen through it. OpenCV's own namespace stays as it is.
#pragma once

#include <memory>
#include_next <opencv2/dnn.hpp>

namespace velmora::plugin::network::cv {

using namespace ::cv;

namespace dnn {

using namespace ::cv::dnn;

class Net;

/// A 4-axis input made from an image, or one output of a Net.
class Blob {
 public:
  /// Converts an image of any depth and any number of channels to 1 x C x H x W floats. The channel
  /// count is kept: `dst_channels` must be -1.
  static Blob fromImages(InputArray image, int dst_channels = -1);

  /// Makes the values readable through matRefConst(). For an output of a pass that has not run yet,
  /// this runs it.
  void updateMat(bool sync_data = true) const;

  /// Number of values in the axes from `start_axis` on.
  size_t total(int start_axis) const;

  const Mat& matRefConst() const { return mat_; }

 private:
  friend class Net;
  struct Pass;

  Blob() = default;

  mutable Mat mat_;
  std::shared_ptr<Pass> pass_;  // null for an input
  size_t index_ = 0;            // of this output in the pass
};

/// A shared handle to a network.
///
/// The engine has to be told the outputs of a pass before it runs, but the caller names them after
/// forward(). So a Net remembers every name that it was ever asked for, and a pass computes all of
/// them in one run: at forward() once names are known; before that, in the very first pass, when
/// the first output is read. A first pass whose outputs nobody reads is not run.
class Net {
 public:
  Net() = default;
  explicit Net(const ::cv::dnn::Net& net);

  bool empty() const;

  /// Sets the network input that is called what follows the dot in `input_name`.
  void setBlob(const String& input_name, const Blob& blob);

  void forward();

  /// The output of the layer `layer_name` in the current pass.
  Blob getBlob(const String& layer_name);

 private:
  std::shared_ptr<Blob::Pass> pass_;
};

/// As OpenCV's, but returns an empty net for files that would crash it.
Net readNetFromCaffe(const String& prototxt, const String& caffe_model);

/// Reads one file that holds a whole Caffe model, description and weights. Returns an empty net
/// when it cannot be read.
Net readNetFromCaffeBinary(const String& path);

}  // namespace dnn
}  // namespace velmora::plugin::network::cv
