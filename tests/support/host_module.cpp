// What a service loads at run time: a module that is linked with the library and uses it.
#include <velmora/plugin/network/ie_network.h>

#include <memory>

using velmora::plugin::network::BaseNetwork;
using velmora::plugin::network::IeNetwork;
using velmora::plugin::network::NetworkConfig;

/// Builds, runs and deletes one network of the sample model; false when its answer is no answer.
extern "C" __attribute__((visibility("default"))) bool UseNetwork(bool may_use_gpu) {
  NetworkConfig config;
  config.output_names = {"prob"};
  config.ie_cpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-cpu.xml";
  config.ie_cpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-cpu.bin";
  if (may_use_gpu) {
    config.ie_gpu_xml_path = VELMORA_SAMPLE_MODEL "/digits-gpu.xml";
    config.ie_gpu_bin_path = VELMORA_SAMPLE_MODEL "/digits-gpu.bin";
  }
  config.batch_size = 1;
  const std::unique_ptr<BaseNetwork> network = std::make_unique<IeNetwork>(config);
  return network->ShouldExitAfterShutdown() == may_use_gpu &&
         network->Forward(cv::Mat::zeros(32, 24, CV_32FC3)).at("prob").size() == 10;
}
