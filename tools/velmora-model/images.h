// Image files: which there are, and reading and preparing them.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "common/console.h"
#include "model.h"

namespace velmora::tool {

/// The images that the named files and folders stand for, in that order, those of a folder sorted
/// by name, and each of them once. A folder that cannot be listed is an error on the console.
std::vector<std::string> ListImages(const std::vector<std::string>& named, Console* console);

/// The decoded image, 8 bits a channel, in OpenCV's order (blue, green, red) or gray. Throws
/// std::runtime_error, without the path, if the file cannot be decoded.
cv::Mat ReadImage(const std::string& path, Channels channels);

/// Noise of the model's size in the form of ReadImage(), always the same. Not zeros, which can take
/// another time.
cv::Mat MadeUpImage(const Model& model);

/// Turns an image of ReadImage() into what the network takes.
cv::Mat Prepare(const cv::Mat& image, const Model& model);

}  // namespace velmora::tool
