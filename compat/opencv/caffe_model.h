// Reads Caffe model files for OpenCV (2.4.13 to 4.x, whose importer takes a text description and a
// binary weights file): makes the pair out of a single-file binary model, and keeps files away from
// the importer that would crash it.
#pragma once

#include <opencv2/dnn.hpp>
#include <string>

namespace velmora::plugin::network::compat {

/// Loads a description (text) and its weights (binary; an empty path for none).
///
/// Returns an empty net for files that would crash OpenCV's importer or the network made of them,
/// such as one with a blob that claims more values than it carries (docs/hostile-models.md lists
/// them), and for a path that is no regular file. Throws OpenCV's own cv::Exception for all other
/// files that it refuses.
::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path);

/// Loads one binary file that holds description and weights; the net computes what the pair of the
/// same model would. OpenCV reads the weights from the file itself: this makes no copy of them.
///
/// Returns an empty net for a file that cannot be read, is not such a model, has no description
/// (such as the weights of a pair), uses a field or a value that caffe_format.proto lacks (left out
/// silently, it would give wrong results), or would crash OpenCV. Throws OpenCV's own cv::Exception
/// for a model that it refuses, and std::system_error if the system has no memory file to spare.
::cv::dnn::Net ReadCaffeBinary(const std::string& path);

}  // namespace velmora::plugin::network::compat
