// OpenCV 3.2, for which src/network/ is written. Only two readers hide OpenCV's own: one for single
// files, which 3.2 lacks, and one that refuses files that would crash the importer. See
// ../../bridge/opencv2/dnn.hpp for the namespace.
#pragma once

#include_next <opencv2/dnn.hpp>

namespace velmora::plugin::network::cv {

using namespace ::cv;

namespace dnn {

using namespace ::cv::dnn;

Net readNetFromCaffe(const String& prototxt, const String& caffe_model);
Net readNetFromCaffeBinary(const String& path);

}  // namespace dnn
}  // namespace velmora::plugin::network::cv
