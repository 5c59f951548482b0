// usage: real-models-forward JOB.json IMAGES ANSWERS
//
// Runs one network on images. The job names the engine (dnn, ie, tflite) and holds fields of
// NetworkConfig and the images' rows, cols and channels; IMAGES holds their 32-bit floats. Into
// ANSWERS goes what Forward() of the first image returns, then for each image what Forward() of all
// does: the outputs in the order of output_names, each as its length, a newline and the floats.
#include <json/value.h>
#include <reelhouse/json_utils.h>
#include <syslog.h>
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>
#include <vector>

using namespace velmora::plugin::network;

int main(int /*argc*/, char** argv) try {
  openlog("log", LOG_PERROR, 0);  // what the library says of a refused model is seen here
  Json::Value job;
  LibReelhouse::ReadJsonFromFile(argv[1], job);
  NetworkConfig config;
  for (const Json::Value& name : job["output_names"]) {
    config.output_names.push_back(name.asString());
  }
  config.dnn_binary_path = job["dnn_binary_path"].asString();
  config.dnn_prototxt_path = job["dnn_prototxt_path"].asString();
  config.dnn_caffemodel_path = job["dnn_caffemodel_path"].asString();
  config.ie_cpu_xml_path = job["ie_cpu_xml_path"].asString();
  config.ie_cpu_bin_path = job["ie_cpu_bin_path"].asString();
  config.tflite_model_path = job["tflite_model_path"].asString();
  config.input_width = job["input_width"].asUInt();
  config.input_height = job["input_height"].asUInt();
  config.batch_size = job["batch_size"].asUInt();

  std::vector<cv::Mat> images;
  std::ifstream file(argv[2], std::ios::binary);
  const int type = CV_MAKETYPE(CV_32F, job["channels"].asInt());
  while (file.peek() != std::ifstream::traits_type::eof()) {
    cv::Mat image(job["rows"].asInt(), job["cols"].asInt(), type);
    file.read(image.ptr<char>(), static_cast<std::streamsize>(image.total() * image.elemSize()));
    images.push_back(image);
  }

  const std::string engine = job["engine"].asString();
  std::unique_ptr<BaseNetwork> network;
  if (engine == "dnn") {
    network = std::make_unique<DnnNetwork>(config);
  } else if (engine == "ie") {
    network = std::make_unique<IeNetwork>(config);
  } else {
    network = std::make_unique<TfLiteNetwork>(config);
  }
  std::vector<OutputMap> answers = {network->Forward(images.at(0))};
  for (OutputMap& answer : network->Forward(images)) {
    answers.push_back(std::move(answer));
  }
  std::ofstream out(argv[3], std::ios::binary);
  for (const OutputMap& answer : answers) {
    for (const std::string& name : config.output_names) {
      const std::vector<float>& values = answer.at(name);
      out << values.size() << '\n';
      out.write(reinterpret_cast<const char*>(values.data()),
                static_cast<std::streamsize>(values.size() * sizeof(float)));
    }
  }
  return out.flush() ? 0 : 2;
} catch (const Exception& exception) {
  std::cerr << exception.message << '\n';
  return 1;
} catch (const std::exception& exception) {
  std::cerr << exception.what() << '\n';
  return 1;
}
