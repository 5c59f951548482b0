#include "support/caffe_writer.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/text_format.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>

#include "caffe_format.h"

namespace velmora::test {
namespace {

namespace pb = ::google::protobuf;

std::string Varint(std::uint64_t value) {
  std::uint8_t bytes[10];
  return {bytes, pb::io::CodedOutputStream::WriteVarint64ToArray(value, bytes)};
}

const pb::FieldDescriptor* FieldOf(const pb::Message& message, const char* name) {
  return message.GetDescriptor()->FindFieldByName(name);
}

void AddBlob(pb::Message& layer, const CaffeBlob& blob, std::minstd_rand& random) {
  pb::Message* message = layer.GetReflection()->AddMessage(&layer, FieldOf(layer, "blobs"));
  const pb::Reflection& reflection = *message->GetReflection();
  pb::Message* shape = reflection.MutableMessage(message, FieldOf(*message, "shape"));
  std::int64_t count = 1;
  for (const std::int64_t dim : blob.shape) {
    shape->GetReflection()->AddInt64(shape, FieldOf(*shape, "dim"), dim);
    count *= dim;
  }
  std::uniform_real_distribution<float> value(blob.low, blob.high);
  const pb::FieldDescriptor* const data = FieldOf(*message, "data");
  for (std::int64_t i = 0; i < count; ++i) reflection.AddFloat(message, data, value(random));
}

}  // namespace

CaffeModel MakeCaffeModel(const std::string& prototxt, const std::vector<CaffeBlob>& blobs) {
  pb::FileDescriptorSet files;
  static_cast<void>(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory(&pool);
  const std::unique_ptr<pb::Message> net(
      factory.GetPrototype(pool.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter"))
          ->New());
  if (!pb::TextFormat::ParseFromString(prototxt, net.get())) {
    throw std::runtime_error("the description does not parse");
  }

  const pb::Reflection& reflection = *net->GetReflection();
  const pb::FieldDescriptor* layers = FieldOf(*net, "layer");
  if (reflection.FieldSize(*net, layers) == 0) layers = FieldOf(*net, "layers");
  const std::unique_ptr<pb::Message> weights(net->New());
  auto blob = blobs.begin();
  std::minstd_rand random(20);
  for (int i = 0; i < reflection.FieldSize(*net, layers); ++i) {
    pb::Message* layer = reflection.MutableRepeatedMessage(net.get(), layers, i);
    const std::string name = layer->GetReflection()->GetString(*layer, FieldOf(*layer, "name"));
    for (; blob != blobs.end() && blob->layer == name; ++blob) AddBlob(*layer, *blob, random);
    pb::Message* unwired = reflection.AddMessage(weights.get(), layers);
    unwired->CopyFrom(*layer);
    for (const char* const field : {"bottom", "top"}) {
      unwired->GetReflection()->ClearField(unwired, FieldOf(*unwired, field));
    }
  }
  if (blob != blobs.end()) throw std::runtime_error("no layer " + blob->layer);
  return {prototxt, weights->SerializeAsString(), net->SerializeAsString()};
}

CaffeModel NewFormModel() {
  return MakeCaffeModel(
      R"(name: "new" force_backward: false state { phase: TEST stage: "deploy" }
      layer { name: "data" type: "Input" top: "data" input_param {
        shape { dim: 1 dim: 3 dim: 8 dim: 8 } } }
      layer { name: "conv" type: "Convolution" bottom: "data" top: "conv" phase: TEST
        param { lr_mult: 1 decay_mult: 0.5 } param { name: "b" lr_mult: 2 }
        include { phase: TEST } propagate_down: true
        convolution_param { num_output: 6 kernel_size: 3 pad: 1 stride: 2 group: 3 dilation: 1
          engine: CAFFE weight_filler { type: "xavier" std: 0.01 variance_norm: FAN_IN } } }
      layer { name: "bn" type: "BatchNorm" bottom: "conv" top: "bn"
        batch_norm_param { eps: 0.12345679 use_global_stats: true } }
      layer { name: "scale" type: "Scale" bottom: "bn" top: "bn" scale_param { bias_term: true } }
      layer { name: "relu" type: "ReLU" bottom: "bn" top: "bn"
        relu_param { negative_slope: 0.33333334 } }
      layer { name: "up" type: "Deconvolution" bottom: "bn" top: "up"
        convolution_param { num_output: 4 kernel_h: 2 kernel_w: 3 stride: 2 bias_term: false } }
      layer { name: "pool" type: "Pooling" bottom: "up" top: "pool"
        pooling_param { pool: AVE kernel_size: 3 stride: 2 } }
      layer { name: "ip" type: "InnerProduct" bottom: "pool" top: "ip" loss_weight: 0
        inner_product_param { num_output: 5 } }
      layer { name: "prob" type: "Softmax" bottom: "ip" top: "prob" softmax_param { axis: -1 } })",
      {{"conv", {6, 1, 3, 3}},
       {"conv", {6}},
       {"bn", {6}},
       {"bn", {6}, 0.1F, 2},
       {"bn", {1}, 1, 2},
       {"scale", {6}},
       {"scale", {6}},
       {"up", {6, 4, 2, 3}},
       {"ip", {5, 64}},
       {"ip", {5}}});
}

CaffeModel OldFormModel() {
  return MakeCaffeModel(
      R"(name: "old" input: "data" input_dim: 1 input_dim: 3 input_dim: 8 input_dim: 8
      layers { name: "conv" type: CONVOLUTION bottom: "data" top: "conv" blobs_lr: 1 blobs_lr: 2
        weight_decay: 1 convolution_param { num_output: 4 kernel_size: 3 pad: 1 group: 1 } }
      layers { name: "pool" type: POOLING bottom: "conv" top: "pool"
        pooling_param { pool: MAX kernel_size: 3 stride: 2 } }
      layers { name: "ip" type: INNER_PRODUCT bottom: "pool" top: "ip"
        inner_product_param { num_output: 5 } }
      layers { name: "prob" type: SOFTMAX bottom: "ip" top: "prob" })",
      {{"conv", {4, 3, 3, 3}}, {"conv", {4}}, {"ip", {5, 64}}, {"ip", {5}}});
}

std::string WriteFile(const std::string& name, const std::string& bytes) {
  const std::string path =
      std::filesystem::temp_directory_path() / (std::to_string(getpid()) + "-" + name);
  std::ofstream file(path, std::ios::binary);
  if (!(file << bytes).flush()) throw std::runtime_error("cannot write " + path);
  return path;
}

std::string VarintField(int number, std::uint64_t value) {
  return Varint(static_cast<std::uint64_t>(number) << 3) + Varint(value);
}

std::string BytesField(int number, const std::string& bytes) {
  return Varint(static_cast<std::uint64_t>(number) << 3 | 2) + Varint(bytes.size()) + bytes;
}

}  // namespace velmora::test
