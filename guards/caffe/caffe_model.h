// Reads Caffe model files for OpenCV (3.2 to 4.x) and refuses those that would crash it. OpenCV's
// importer takes a pair of a text description and binary weights.
#pragma once

#include <cstdint>
#include <opencv2/dnn.hpp>
#include <string>
#include <vector>

namespace velmora::plugin::network::guards {

/// Returns why the description (text) and its weights (binary; "" for none) are refused, or "" if
/// they are not. The reason is meant for the author of the model and names the file and, if
/// possible, the layer. Files are refused if they would crash OpenCV's importer or the resulting
/// network (docs/hostile-models.md has the list), or if they belong to a training run. Files that
/// OpenCV itself cannot open or parse are not refused.
std::string RefusalOfCaffePair(const std::string& prototxt_path,
                               const std::string& caffemodel_path);

/// Does the same for one binary file that contains both. A file that cannot be read or is not such
/// a model is refused, too.
std::string RefusalOfCaffeBinary(const std::string& path);

/// Returns the size of the network's input "data" (usually N x C x H x W) that a model's
/// description states, or an empty vector if it states none. Only for models that were not refused,
/// because nothing is checked here.
std::vector<std::int64_t> InputOfCaffePair(const std::string& prototxt_path);
std::vector<std::int64_t> InputOfCaffeBinary(const std::string& path);

/// Loads a pair, or returns an empty net if it is refused. Throws OpenCV's own cv::Exception for
/// files that OpenCV rejects.
::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path);

/// Loads one binary file with description and weights. The net computes the same as that of the
/// corresponding pair. OpenCV reads the weights from the file itself, so they are not copied.
/// Fields and values that caffe_format.proto lacks are ignored.
///
/// Returns an empty net if the file is refused. Throws OpenCV's own cv::Exception if OpenCV rejects
/// the model, and std::system_error if the system cannot provide a memory file.
::cv::dnn::Net ReadCaffeBinary(const std::string& path);

}  // namespace velmora::plugin::network::guards
