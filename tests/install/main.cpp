// usage: user SAMPLE-MODEL FOLDER ENGINE...
//
// Runs the sample model with each engine (dnn, ie, tflite) on an image of zeros, and fails unless
// they agree and nothing was loaded from below FOLDER.
#include <json/value.h>
#include <reelhouse/json_utils.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace velmora::plugin::network;

std::vector<float> Run(const std::string& engine, const std::string& folder) {
  Json::Value model;
  if (!LibReelhouse::ReadJsonFromFile(folder + "/model.json", model)) {
    throw Exception("no model.json");
  }
  const auto path = [&](const char* name) {
    return folder + '/' + model["network"][name].asString();
  };
  NetworkConfig config;
  config.output_names = {"prob"};
  config.dnn_prototxt_path = path("dnn_prototxt_path");
  config.dnn_caffemodel_path = path("dnn_caffemodel_path");
  config.ie_cpu_xml_path = path("ie_cpu_xml_path");
  config.ie_cpu_bin_path = path("ie_cpu_bin_path");
  config.ie_gpu_xml_path = path("ie_gpu_xml_path");
  config.ie_gpu_bin_path = path("ie_gpu_bin_path");
  config.tflite_model_path = path("tflite_model_path");
  config.batch_size = 1;

  std::unique_ptr<BaseNetwork> network;
  if (engine == "dnn") {
    network = std::make_unique<DnnNetwork>(config);
  } else if (engine == "ie") {
    network = std::make_unique<IeNetwork>(config);
  } else {
    network = std::make_unique<TfLiteNetwork>(config);
  }
  // One output, which is "output" in TensorFlow Lite and "prob" elsewhere.
  return network->Forward(cv::Mat(32, 24, CV_32FC3, cv::Scalar::all(0))).begin()->second;
}

}  // namespace

int main(int argc, char** argv) try {
  std::vector<float> first;
  for (int i = 3; i < argc; ++i) {
    const std::vector<float> values = Run(argv[i], argv[1]);
    if (first.empty()) {
      first = values;
    }
    float difference = std::abs(std::accumulate(values.begin(), values.end(), -1.0f));
    for (std::size_t k = 0; k < values.size(); ++k) {
      difference = std::max(difference, std::abs(values[k] - first.at(k)));
    }
    std::cout << argv[i] << ": " << values.size() << " values, off by " << difference << '\n';
    if (values.size() != 10 || !(difference < 1e-4f)) {
      return 1;
    }
  }
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(std::string(argv[2]) + '/') != std::string::npos) {
      std::cerr << "loaded: " << line << '\n';
      return 1;
    }
  }
  return first.empty();
} catch (const Exception& exception) {
  std::cerr << exception.message << '\n';
  return 1;
} catch (const std::exception& exception) {
  std::cerr << exception.what() << '\n';
  return 1;
}
