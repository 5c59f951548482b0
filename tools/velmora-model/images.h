// Image files: which there are, reading and preparing them, their truth, and pictures of the
// answers.
#pragma once

#include <map>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "common.h"
#include "model.h"
#include "output_folder.h"

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

/// The right label of each image whose truth is known. It comes from `file`, or when that is empty
/// from the truth.csv of each image's folder, where there is one: CSV with the header "file,label".
/// A bare name in a truth.csv is an image of its folder, in `file` any image of that name; a name
/// with a slash is a path from the truth file's folder. A truth file with an error is an error on
/// the console, and none of it is used.
std::map<std::string, std::string> FindTruth(const std::vector<std::string>& images,
                                             const std::string& file,
                                             const std::vector<std::string>& labels,
                                             Console* console);

/// Writes images with their answers below them into a folder, as PNG files.
class Annotator {
 public:
  /// Makes the folder if it is missing. Throws std::filesystem::filesystem_error.
  Annotator(std::string folder, const std::vector<std::string>& images);

  /// Throws as OutputFolder::Write() does.
  void Write(const std::string& path, const cv::Mat& image, const std::vector<std::string>& lines,
             const cv::Scalar& colour);

 private:
  OutputFolder folder_;
};

}  // namespace velmora::tool
