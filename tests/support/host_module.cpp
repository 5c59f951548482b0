// What a service loads at run time: a module that is linked with the library and uses it.
#include <velmora/plugin/network/create_network.h>

#include <memory>

using velmora::plugin::network::BaseNetwork;
using velmora::plugin::network::NetworkConfig;

/// Builds, runs and deletes one network of the sample model, with the engine that the machine
/// supports; false when its answer is no answer.
extern "C" __attribute__((visibility("default"))) bool UseNetwork(bool with_gpu) {
  NetworkConfig config;
  config.enable_dnn = config.enable_ie = config.enable_tflite = true;
  config.output_names = {"prob"};
  config.dnn_prototxt_path = VELMORA_SAMPLE_MODEL "/digits.prototxt";
  config.dnn_caffemodel_path = VELMORA_SAMPLE_MODEL "/digits.caffemodel";
  config.tflite_model_path = VELMORA_SAMPLE_MODEL "/digits.tflite";
  config.ie_cpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-cpu.xml";
  config.ie_cpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-cpu.bin";
  config.ie_gpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-gpu.xml";
  config.ie_gpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-gpu.bin";
  config.batch_size = 1;
  const std::unique_ptr<BaseNetwork> network(CreateNetwork(config));
  return network->ShouldExitAfterShutdown() == with_gpu &&
         network->Forward(cv::Mat::zeros(32, 24, CV_32FC3)).begin()->second.size() == 10;
}
