#include "annotate.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace velmora::tool {

std::string AnnotatedPng(const cv::Mat& image, const std::vector<std::string>& lines,
                         const cv::Scalar& colour) {
  constexpr int kReadable = 192;  // pixels of the longer side
  constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

  cv::Mat picture;
  const int longer_side = std::max(image.cols, image.rows);
  const int factor = (kReadable + longer_side - 1) / longer_side;
  cv::resize(image, picture, cv::Size(), factor, factor, cv::INTER_NEAREST);
  if (picture.channels() == 1) {
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  }

  const double font_scale = std::max(0.5, longer_side / 1000.0);
  const int thickness = static_cast<int>(std::lround(font_scale + 0.5));
  const int line_height = static_cast<int>(std::lround(36 * font_scale));
  const int margin = line_height / 4;
  int width = picture.cols;
  for (const std::string& line : lines) {
    width = std::max(
        width, cv::getTextSize(line, kFont, font_scale, thickness, nullptr).width + 2 * margin);
  }
  const int below = line_height * static_cast<int>(lines.size()) + margin;
  cv::Mat canvas;
  cv::copyMakeBorder(picture, canvas, 0, below, 0, width - picture.cols, cv::BORDER_CONSTANT);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const int baseline = picture.rows + line_height * static_cast<int>(i + 1) - margin;
    cv::putText(canvas, lines[i], {margin, baseline}, kFont, font_scale, colour, thickness,
                cv::LINE_AA);
  }

  std::vector<unsigned char> bytes;
  cv::imencode(".png", canvas, bytes);
  return {bytes.begin(), bytes.end()};
}

}  // namespace velmora::tool
