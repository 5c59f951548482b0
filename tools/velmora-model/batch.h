// Runs a model on image files, for the commands that take many.
#pragma once

#include <velmora/plugin/network/base_network.h>

#include <opencv2/core.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/console.h"
#include "model.h"
#include "output_folder.h"

namespace velmora::tool {

/// One image and its outputs, or an error instead.
struct ImageRun {
  std::string file;
  cv::Mat image;     // as ReadImage() returns it
  cv::Mat prepared;  // as the network takes it
  plugin::network::OutputMap outputs;
  double milliseconds = 0;  // in the network; an equal part of the batch's time
  std::string error;

  /// Makes the exception that is being handled the error, and prints it.
  void Fail(Console* console);
};

/// The file and the error, if there is one.
Json::Value ToJson(const ImageRun& run);

/// Runs the images as one batch. Images that cannot be read fail alone; if the network fails, all
/// of them do.
std::vector<ImageRun> RunBatch(const Model& model, std::span<const std::string> files,
                               Console* console);

/// The folder that the user wants results in, if any. An error is printed, and there is no folder.
std::optional<OutputFolder> MakeOutputFolder(const std::string& path,
                                             const std::vector<std::string>& images,
                                             Console* console);

}  // namespace velmora::tool
