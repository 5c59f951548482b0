// Reads Caffe model files for OpenCV (2.4.13 to 4.x, whose importer takes a text description and a
// binary weights file): makes the pair out of a single-file binary model, and keeps files away from
// the importer that would crash it.
#pragma once

#include <cstdint>
#include <opencv2/dnn.hpp>
#include <string>
#include <vector>

namespace velmora::plugin::network::guards {

/// Why the description (text) and its weights (binary; an empty path for none) are kept from
/// OpenCV, in words for the author of the model, with the file and if possible the layer: they
/// would crash its importer or the network made of them (docs/hostile-models.md lists what does),
/// or they are those of a training run. Empty for files that OpenCV may have, which include those
/// that it cannot open or parse.
std::string RefusalOfCaffePair(const std::string& prototxt_path,
                               const std::string& caffemodel_path);

/// The same for one binary file that holds both. It is refused too if it cannot be read or holds no
/// such model.
std::string RefusalOfCaffeBinary(const std::string& path);

/// The size of the network's input "data" as a model's description states it, N x C x H x W as a
/// rule; empty where it states none. For a model that was not refused: no more than its description
/// is read.
std::vector<std::int64_t> InputOfCaffePair(const std::string& prototxt_path);
std::vector<std::int64_t> InputOfCaffeBinary(const std::string& path);

/// Loads a pair; an empty net for one that is refused. Throws OpenCV's own cv::Exception for files
/// that OpenCV refuses.
::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path);

/// Loads one binary file that holds description and weights; the net computes what the pair of the
/// same model would. OpenCV reads the weights from the file itself: this makes no copy of them.
/// Fields and values that caffe_format.proto lacks are passed over.
///
/// Returns an empty net for a file that is refused. Throws OpenCV's own cv::Exception for a model
/// that OpenCV refuses, and std::system_error if the system has no memory file to spare.
::cv::dnn::Net ReadCaffeBinary(const std::string& path);

}  // namespace velmora::plugin::network::guards
