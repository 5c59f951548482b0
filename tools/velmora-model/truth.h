// The right labels of images, for measuring accuracy.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/console.h"

namespace velmora::tool {

/// The right label of each image whose truth is known. It comes from `file`, or when that is empty
/// from the truth.csv of each image's folder, where there is one: CSV with the header "file,label".
/// A bare name in a truth.csv is an image of its folder, in `file` any image of that name; a name
/// with a slash is a path from the truth file's folder. A truth file with an error is an error on
/// the console, and none of it is used.
std::map<std::string, std::string> FindTruth(const std::vector<std::string>& images,
                                             const std::string& file,
                                             const std::vector<std::string>& labels,
                                             Console* console);

}  // namespace velmora::tool
