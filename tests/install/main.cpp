// usage: user SAMPLE-MODEL ENGINE...
//
// Runs the sample model with each engine (dnn, ie, tflite) on an image of zeros, fails unless the
// answers are probabilities, and prints what is mapped into the process meanwhile.
#include <json/value.h>
#include <reelhouse/json_utils.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>

using namespace velmora::plugin::network;

int main(int argc, char** argv) try {
  const std::string folder = std::string(argv[1]) + '/';
  Json::Value model;
  LibReelhouse::ReadJsonFromFile(folder + "model.json", model);
  const auto path = [&](const char* key) { return folder + model["network"][key].asString(); };
  NetworkConfig config;
  config.output_names = {"prob"};
  config.dnn_prototxt_path = path("dnn_prototxt_path");
  config.dnn_caffemodel_path = path("dnn_caffemodel_path");
  config.ie_cpu_xml_path = path("ie_cpu_xml_path");
  config.ie_cpu_bin_path = path("ie_cpu_bin_path");
  config.tflite_model_path = path("tflite_model_path");
  config.batch_size = 1;

  for (int i = 2; i < argc; ++i) {
    const std::string engine = argv[i];
    std::unique_ptr<BaseNetwork> network;
    if (engine == "dnn") {
      network = std::make_unique<DnnNetwork>(config);
    } else if (engine == "ie") {
      network = std::make_unique<IeNetwork>(config);
    } else {
      network = std::make_unique<TfLiteNetwork>(config);
    }
    // One output, which is "output" in TensorFlow Lite and "prob" elsewhere.
    const std::vector<float> values =
        network->Forward(cv::Mat(32, 24, CV_32FC3, cv::Scalar::all(0))).begin()->second;
    const float sum = std::accumulate(values.begin(), values.end(), 0.0f);
    if (values.size() != 10 || !(std::abs(sum - 1) < 1e-4f)) {
      std::cerr << engine << ": " << values.size() << " values, in sum " << sum << '\n';
      return 1;
    }
    std::cout << std::ifstream("/proc/self/maps").rdbuf();
  }
} catch (const Exception& exception) {
  std::cerr << exception.message << '\n';
  return 1;
}
