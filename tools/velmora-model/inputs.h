// What the library does not tell: the sizes of a network's input and outputs, and why an engine
// rejects a model. This is the only place in the program that calls the engines themselves.
#pragma once

#include <velmora/plugin/network/network_config.h>

#include <functional>
#include <map>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::tool {

/// The shape of the input for images; 0 for a size that the file leaves open.
struct InputShape {
  int width = 0;
  int height = 0;
  int channels = 0;
};

/// Each for a form that its backend has loaded: these functions check no files. IeInput() reads the
/// pair for the CPU.
InputShape DnnInput(const plugin::network::NetworkConfig& config);
InputShape IeInput(const plugin::network::NetworkConfig& config);
InputShape TfLiteInput(const plugin::network::NetworkConfig& config);

/// Each for a form that its backend could not load or run: loads it again, and returns the reason
/// in the words of the engine or of the rule that rejected it, on one line; "" if all goes well
/// now.
std::string DnnReason(const plugin::network::NetworkConfig& config);
std::string IeReason(const plugin::network::NetworkConfig& config, const std::string& device);
std::string TfLiteReason(const plugin::network::NetworkConfig& config);

/// Shapes by the keys of the network's maps, except those that the engine does not tell.
using OutputShapes = std::map<std::string, std::vector<std::size_t>>;

/// How many values a shape has.
std::size_t Product(const std::vector<std::size_t>& shape);

/// Returns the shapes of the outputs for a prepared image. TfLiteNetwork may return only a part of
/// the values.
using ShapeReader = std::function<OutputShapes(const cv::Mat& image)>;

/// Each for a form that its backend has loaded. OpenCV knows a shape only after a run, so that
/// reader runs the network for each image; the others omit shapes that depend on the run.
ShapeReader DnnOutputs(const plugin::network::NetworkConfig& config);
ShapeReader IeOutputs(const plugin::network::NetworkConfig& config);
ShapeReader TfLiteOutputs(const plugin::network::NetworkConfig& config);

}  // namespace velmora::tool
