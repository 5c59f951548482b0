// OpenCV 3.2, whose dnn API src/network/ is written against: nothing to bridge. Only the two
// readers stand before OpenCV's: the single-file one because 3.2 has none, the other because it
// keeps files away from the importer that would crash it. See ../../bridge/opencv2/dnn.hpp for the
// namespace.
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
