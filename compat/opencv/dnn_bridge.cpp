#include <algorithm>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/all_layers.hpp>
#include <string>
#include <vector>

#include "caffe/caffe_model.h"

namespace velmora::plugin::network::cv::dnn {

/// What a Net and the outputs of its current pass share.
struct Blob::Pass {
  ::cv::dnn::Net net;
  std::vector<String> layers;  // those that a run computes: the ends, and all requested ones
  std::vector<std::vector<::cv::Mat>> outputs;  // of the last run: all that each layer has

  size_t IndexOf(const String& layer);
  void Run();
};

namespace {

using LayerPtr = Ptr<Layer>;

/// Whether OpenCV computes this layer together with the one before it.
bool CanBeFusedBackward(const LayerPtr& layer) {
  Mat scale;
  Mat shift;
  layer->getScaleShift(scale, shift);
  return !scale.empty() || !shift.empty() || layer->type == "Eltwise" ||
         layer.dynamicCast<ActivationLayer>();
}

/// The layers that no other layer reads, and the MVN layers. OpenCV (4.6) fuses a normalisation
/// into an MVN layer and never undoes it, so that the next plan of the network, for another image
/// size or other outputs, applies it twice. It fuses nothing into a layer that is requested.
std::vector<String> EndsOf(::cv::dnn::Net& net) {
  const std::vector<int> ends = net.getUnconnectedOutLayers();
  std::vector<String> names;
  for (const String& name : std::vector<String>(net.getLayerNames())) {
    const int id = net.getLayerId(name);
    if (std::find(ends.begin(), ends.end(), id) != ends.end() || net.getLayer(id)->type == "MVN") {
      names.push_back(name);
    }
  }
  return names;
}

/// OpenCV fuses a layer such as a convolution with the normalisations and activations that follow
/// it. The outputs inside such a chain can be requested but are never written (reading one returns
/// whatever was in memory); those of the first and the last layer are correct.
bool IsInsideFusedChain(::cv::dnn::Net& net, const String& name) {
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

}  // namespace

size_t Blob::Pass::IndexOf(const String& layer) {
  const auto found = std::find(layers.begin(), layers.end(), layer);
  const auto index = static_cast<size_t>(found - layers.begin());
  if (found == layers.end()) {
    // Networks are much slower without fusion, so it stays on unless such a layer is requested.
    if (IsInsideFusedChain(net, layer)) {
      net.enableFusion(false);
    }
    layers.push_back(layer);
  }
  return index;
}

void Blob::Pass::Run() {
  if (layers.empty()) {
    layers = EndsOf(net);
#if CV_VERSION_MAJOR == 4 && CV_VERSION_MINOR > 6
    // 4.10 never undoes a fusion into a convolution, even if that is requested later.
    net.enableFusion(false);
#endif
  }
  net.forward(outputs, layers);
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
  if (layer_ >= pass_->outputs.size()) {
    pass_->Run();
  }
  const std::vector<Mat>& outputs = pass_->outputs[layer_];
  if (output_ >= outputs.size()) {
    CV_Error(Error::StsOutOfRange, "Layer \"" + pass_->layers[layer_] + "\" has no output " +
                                       std::to_string(output_) + ", only " +
                                       std::to_string(outputs.size()));
  }
  mat_ = outputs[output_];
  CV_Assert(mat_.total() >= total(1));  // one sample can be read
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

void Net::forward() { pass_->Run(); }

Blob Net::getBlob(const String& output_name) {
  Blob blob;
  blob.pass_ = pass_;
  String layer = output_name;
  // 3.2 allows no dots in the names of layers. In later versions, the whole name comes first.
  const size_t dot = output_name.find('.');
  if (dot != String::npos && pass_->net.getLayerId(output_name) < 0) {
    const String output = output_name.substr(dot + 1);
    layer = output_name.substr(0, dot);
    if (output.size() > 9 || output.find_first_not_of("0123456789") != String::npos) {
      layer.clear();
    } else if (!output.empty()) {
      blob.output_ = std::stoul(output);
    }
  }
  if (layer.empty() || pass_->net.getLayerId(layer) < 0) {
    CV_Error(Error::StsObjectNotFound, "Requested blob \"" + output_name + "\" not found");
  }
  blob.layer_ = pass_->IndexOf(layer);
  return blob;
}

Net readNetFromCaffe(const String& prototxt, const String& caffe_model) {
  return Net(guards::ReadCaffePair(prototxt, caffe_model));
}

Net readNetFromCaffeBinary(const String& path) { return Net(guards::ReadCaffeBinary(path)); }

}  // namespace velmora::plugin::network::cv::dnn
