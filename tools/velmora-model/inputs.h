// What the library keeps to itself: the sizes of a network's input and outputs, and why an engine
// does not take a model. The one place of the program that asks the engines themselves.
#pragma once

#include <velmora/plugin/network/network_config.h>

#include <functional>
#include <map>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velmora::tool {

/// What the backend feeds with an image; 0 for what the file leaves open.
struct InputShape {
  int width = 0;
  int height = 0;
  int channels = 0;
};

/// Each for the form of one backend, which must have loaded it before: these look at no file with
/// the suspicion that the library does. The Inference Engine's is that of the pair for the CPU,
/// with `input_width` and `input_height`.
InputShape DnnInput(const plugin::network::NetworkConfig& config);
InputShape IeInput(const plugin::network::NetworkConfig& config);
InputShape TfLiteInput(const plugin::network::NetworkConfig& config);

/// Each for a form that its backend could not load or run: why not, in the words of the engine or
/// of the rule that refused it, on one line; empty where all goes well now. Loads it once more. The
/// Inference Engine's is on this device, with the pair for the CPU.
std::string DnnReason(const plugin::network::NetworkConfig& config);
std::string IeReason(const plugin::network::NetworkConfig& config, const std::string& device);
std::string TfLiteReason(const plugin::network::NetworkConfig& config);

/// Shapes by the keys of the network's maps, without those that the engine does not tell.
using OutputShapes = std::map<std::string, std::vector<std::size_t>>;

/// How many values a shape has.
std::size_t Product(const std::vector<std::size_t>& shape);

/// Tells the shapes of the outputs for an image, which is a prepared one. They may not be those of
/// what the network returned: TensorFlow Lite hands over a part.
using ShapeReader = std::function<OutputShapes(const cv::Mat& image)>;

/// Each for a form that its backend has loaded; they load it once more, but for TensorFlow Lite's.
/// OpenCV tells a shape only when it has run, and so runs the network for each image; the others
/// leave out, or give as none, an output whose shape a run decides.
ShapeReader DnnOutputs(const plugin::network::NetworkConfig& config);
ShapeReader IeOutputs(const plugin::network::NetworkConfig& config);
ShapeReader TfLiteOutputs(const plugin::network::NetworkConfig& config);

}  // namespace velmora::tool
