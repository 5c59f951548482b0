// The right labels of images, for measuring accuracy.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/console.h"

namespace velmora::tool {

/// The right label of each image whose truth is known. It comes from `file`, or if that is empty
/// from the truth.csv in the image's folder: CSV with the header "file,label". A bare name in a
/// truth.csv is an image in the same folder, and in `file` any image of that name; a name with a
/// slash is a path relative to the truth file's folder. A truth file with an error is not used, and
/// the error goes to the console.
std::map<std::string, std::string> FindTruth(const std::vector<std::string>& images,
                                             const std::string& file,
                                             const std::vector<std::string>& labels,
                                             Console* console);

}  // namespace velmora::tool
