// Pictures of the answers.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::tool {

/// The bytes of a PNG file: the image, enlarged if it is tiny, with lines of text below it.
std::string AnnotatedPng(const cv::Mat& image, const std::vector<std::string>& lines,
                         const cv::Scalar& colour);

}  // namespace velmora::tool
