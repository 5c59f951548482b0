#include <opencv2/dnn.hpp>

#include "caffe/caffe_model.h"

namespace velmora::plugin::network::cv::dnn {

Net readNetFromCaffe(const String& prototxt, const String& caffe_model) {
  return guards::ReadCaffePair(prototxt.c_str(), caffe_model.c_str());
}

Net readNetFromCaffeBinary(const String& path) { return guards::ReadCaffeBinary(path.c_str()); }

}  // namespace velmora::plugin::network::cv::dnn
