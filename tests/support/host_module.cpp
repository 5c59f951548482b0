// What a service loads at run time: a module that is linked with the library and uses it.
#include <velmora/plugin/network/dnn_network.h>
#include <velmora/plugin/network/ie_network.h>
#include <velmora/plugin/network/tf_lite_network.h>

#include <memory>
#include <string>

using velmora::plugin::network::BaseNetwork;
using velmora::plugin::network::DnnNetwork;
using velmora::plugin::network::IeNetwork;
using velmora::plugin::network::NetworkConfig;
using velmora::plugin::network::TfLiteNetwork;

/// Builds, runs and deletes one network of the sample model; false when its answer is no answer.
extern "C" __attribute__((visibility("default"))) bool UseNetwork(const char* backend,
                                                                  bool may_use_gpu) {
  const std::string name = backend;
  NetworkConfig config;
  config.output_names = {"prob"};
  config.dnn_prototxt_path = VELMORA_SAMPLE_MODEL "/digits.prototxt";
  config.dnn_caffemodel_path = VELMORA_SAMPLE_MODEL "/digits.caffemodel";
  config.tflite_model_path = VELMORA_SAMPLE_MODEL "/digits.tflite";
  config.ie_cpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-cpu.xml";
  config.ie_cpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-cpu.bin";
  if (may_use_gpu) {
    config.ie_gpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-gpu.xml";
    config.ie_gpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-gpu.bin";
  }
  config.batch_size = 1;
  std::unique_ptr<BaseNetwork> network;
  if (name == "ie") {
    network = std::make_unique<IeNetwork>(config);
  } else if (name == "tflite") {
    network = std::make_unique<TfLiteNetwork>(config);
  } else {
    network = std::make_unique<DnnNetwork>(config);
  }
  const bool keeps_process = name == "ie" && may_use_gpu;
  return network->ShouldExitAfterShutdown() == keeps_process &&
         network->Forward(cv::Mat::zeros(32, 24, CV_32FC3))
                 .at(name == "tflite" ? "output" : "prob")
                 .size() == 10;
}
