#include <algorithm>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/all_layers.hpp>
#include <string>
#include <vector>

#include "opencv/caffe_model.h"

namespace velmora::plugin::network::cv::dnn {

/// What a Net and the outputs of its current pass share.
struct Blob::Pass {
  ::cv::dnn::Net net;
  std::vector<String> names;       // every output ever asked for: what a run computes
  std::vector<::cv::Mat> outputs;  // of the last run, in the order of `names`
  bool due = false;                // forward() was called and the run is still to come

  size_t IndexOf(const String& name);
  void Run();

 private:
  bool IsInsideFusedChain(const String& name) const;
};

namespace {

using LayerPtr = Ptr<Layer>;

/// True for the layers that OpenCV computes together with the layer before them.
bool CanBeFusedBackward(const LayerPtr& layer) {
  Mat scale;
  Mat shift;
  layer->getScaleShift(scale, shift);
  return !scale.empty() || !shift.empty() || layer->type == "Eltwise" ||
         layer.dynamicCast<ActivationLayer>();
}

}  // namespace

/// OpenCV fuses a layer such as a convolution with the run of normalisations and activations behind
/// it. The outputs of the layers inside such a run are never written (reading one gives whatever
/// the memory held), although they may be asked for; those of its first and last layer are right.
bool Blob::Pass::IsInsideFusedChain(const String& name) const {
  const LayerPtr layer = net.getLayer(net.getLayerId(name));
  if (!CanBeFusedBackward(layer)) {
    return false;
  }
  const std::vector<String> others = net.getLayerNames();
  return std::any_of(others.begin(), others.end(), [&](const String& other) {
    const int id = net.getLayerId(other);
    const std::vector<LayerPtr> inputs = net.getLayerInputs(id);
    return std::find(inputs.begin(), inputs.end(), layer) != inputs.end() &&
           CanBeFusedBackward(net.getLayer(id));
  });
}

size_t Blob::Pass::IndexOf(const String& name) {
  const auto found = std::find(names.begin(), names.end(), name);
  const auto index = static_cast<size_t>(found - names.begin());
  if (found == names.end()) {
    if (net.getLayerId(name) < 0) {
      CV_Error(Error::StsObjectNotFound, "Layer \"" + name + "\" is not in the network");
    }
    // Fusion costs nothing to leave on, and much to turn off, where no such layer is asked for.
    if (IsInsideFusedChain(name)) {
      net.enableFusion(false);
    }
    names.push_back(name);
    due = true;
  }
  return index;
}

void Blob::Pass::Run() {
  due = false;
  if (names.empty()) {
    net.forward();
  } else {
    net.forward(outputs, names);
  }
}

Blob Blob::fromImages(InputArray image, int dst_channels) {
  CV_Assert(dst_channels == -1);
  const Mat source = image.getMat();
  CV_Assert(source.dims == 2 && !source.empty());
  Mat floats;
  source.convertTo(floats, CV_32F);

  const int shape[] = {1, floats.channels(), floats.rows, floats.cols};
  Blob blob;
  blob.mat_.create(4, shape, CV_32F);
  std::vector<Mat> planes;
  planes.reserve(static_cast<size_t>(floats.channels()));
  for (int channel = 0; channel < floats.channels(); ++channel) {
    planes.emplace_back(floats.rows, floats.cols, CV_32F, blob.mat_.ptr<float>(0, channel));
  }
  split(floats, planes);
  return blob;
}

void Blob::updateMat(bool /*sync_data*/) const {
  if (!pass_) {
    return;
  }
  if (pass_->due) {
    pass_->Run();
  }
  mat_ = pass_->outputs[index_];
  CV_Assert(mat_.total() >= total(1));  // one sample is there to be read
}

size_t Blob::total(int start_axis) const {
  CV_Assert(0 <= start_axis && start_axis <= mat_.dims);
  size_t count = 1;
  for (int axis = start_axis; axis < mat_.dims; ++axis) {
    count *= static_cast<size_t>(mat_.size[axis]);
  }
  return count;
}

Net::Net(const ::cv::dnn::Net& net) : pass_(std::make_shared<Blob::Pass>()) { pass_->net = net; }

bool Net::empty() const { return !pass_ || pass_->net.empty(); }

void Net::setBlob(const String& input_name, const Blob& blob) {
  const size_t dot = input_name.find('.');
  CV_Assert(dot != String::npos);
  pass_->net.setInput(blob.mat_, input_name.substr(dot + 1));
}

void Net::forward() {
  // Still due from the pass before means that nobody read its outputs.
  const bool nothing_is_read = pass_->due;
  pass_->due = true;
  if (nothing_is_read || !pass_->names.empty()) {
    pass_->Run();
  }
}

Blob Net::getBlob(const String& layer_name) {
  Blob blob;
  blob.index_ = pass_->IndexOf(layer_name);
  blob.pass_ = pass_;
  return blob;
}

Net readNetFromCaffe(const String& prototxt, const String& caffe_model) {
  return Net(compat::ReadCaffePair(prototxt, caffe_model));
}

Net readNetFromCaffeBinary(const String& path) { return Net(compat::ReadCaffeBinary(path)); }

}  // namespace velmora::plugin::network::cv::dnn
