// Image files: which there are, and reading and preparing them.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "common/console.h"
#include "model.h"

namespace velmora::tool {

/// The images that are meant by files and folders, in that order, those of a folder by name; an
/// image that is named twice comes once. What cannot be listed is an error on the console.
std::vector<std::string> ListImages(const std::vector<std::string>& named, Console* console);

/// The decoded image, 8 bits a channel, in OpenCV's order (blue, green, red) or gray. Throws, with
/// the reason but without the path, when the file does not decode.
cv::Mat ReadImage(const std::string& path, Channels channels);

/// Noise of the model's size, the same every time, as of ReadImage(). Not all zeros: sparse or
/// denormal numbers can take another time.
cv::Mat MadeUpImage(const Model& model);

/// What the network takes for an image of ReadImage().
cv::Mat Prepare(const cv::Mat& image, const Model& model);

}  // namespace velmora::tool
