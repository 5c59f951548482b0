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

  /// Makes the values readable through matRefConst(); see Net for when this runs the network.
  /// Throws cv::Exception for an output that the layer does not have.
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
  size_t layer_ = 0;            // whose output this is, of those that a run computes
  size_t output_ = 0;           // which of the outputs of that layer
};

/// A shared handle to a network.
///
/// 3.2 keeps the outputs of all layers of a run, and the caller picks some. Here the engine has to
/// be told before a run what to keep. So forward() runs the whole network, once, and keeps the
/// outputs of its ends (the layers that no other reads) and of every layer that was ever asked for.
/// Only reading the output of a layer that is asked for the first time, and is no end, runs the
/// network once more.
class Net {
 public:
  Net() = default;
  explicit Net(const ::cv::dnn::Net& net);

  bool empty() const;

  /// Sets the network input that is called what follows the dot in `input_name`.
  void setBlob(const String& input_name, const Blob& blob);

  void forward();

  /// An output of the current pass: "layer" names the first output of a layer, "layer.N" output N,
  /// counted from 0. A layer that is called so, with its dot, comes first. Throws cv::Exception for
  /// a name that the network does not have.
  Blob getBlob(const String& output_name);

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
