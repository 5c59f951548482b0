// The dnn API of OpenCV 3.2, implemented with OpenCV 3.3 to 4.x.
//
// src/network/ is written for 3.2, where a caller sets the input, runs the network and then fetches
// outputs by name: Blob, Net::setBlob, Net::forward, Net::getBlob. 3.3 replaced these with setInput
// and forward(outputs, names). This header is found before OpenCV's own of the same name and adds
// the old interface to the new one.
//
// The names are in a namespace `cv` inside the library's, where the code of src/network/ finds them
// before OpenCV's. All other names of OpenCV are visible through it.
#pragma once

#include <memory>
#include_next <opencv2/dnn.hpp>

namespace velmora::plugin::network::cv {

using namespace ::cv;

namespace dnn {

using namespace ::cv::dnn;

class Net;

/// A 4-dimensional input made from an image, or one output of a Net.
class Blob {
 public:
  /// Converts an image of any depth to 1 x C x H x W floats. `dst_channels` must be -1, which keeps
  /// the number of channels.
  static Blob fromImages(InputArray image, int dst_channels = -1);

  /// Makes the values available to matRefConst(); see Net for when this runs the network. Throws
  /// cv::Exception if the layer has no such output.
  void updateMat(bool sync_data = true) const;

  /// Returns the number of values in the axes from `start_axis` on.
  size_t total(int start_axis) const;

  const Mat& matRefConst() const { return mat_; }

 private:
  friend class Net;
  struct Pass;

  Blob() = default;

  mutable Mat mat_;
  std::shared_ptr<Pass> pass_;  // null for an input
  size_t layer_ = 0;            // index of the layer in Pass::layers
  size_t output_ = 0;           // index of the output in that layer
};

/// A shared handle to a network.
///
/// 3.2 keeps the outputs of all layers after a run. Here, the engine must know before a run what to
/// keep. So forward() runs the whole network once and keeps the outputs of its ends (the layers
/// that no other layer reads) and of all layers that were ever requested. The network runs again
/// only when the output of a newly requested layer that is not an end is read.
class Net {
 public:
  Net() = default;
  explicit Net(const ::cv::dnn::Net& net);

  bool empty() const;

  /// Sets the network input whose name follows the dot in `input_name`.
  void setBlob(const String& input_name, const Blob& blob);

  void forward();

  /// Returns an output of the current pass: "layer" is the first output of a layer, "layer.N" is
  /// output N, counted from 0. A layer whose own name has such a dot comes first. Throws
  /// cv::Exception if there is no such layer.
  Blob getBlob(const String& output_name);

 private:
  std::shared_ptr<Blob::Pass> pass_;
};

/// Like OpenCV's, but returns an empty net for files that would crash it.
Net readNetFromCaffe(const String& prototxt, const String& caffe_model);

/// Reads a whole Caffe model from one binary file. Returns an empty net if it is refused.
Net readNetFromCaffeBinary(const String& path);

}  // namespace dnn
}  // namespace velmora::plugin::network::cv
