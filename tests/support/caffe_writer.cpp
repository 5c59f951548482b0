#include "support/caffe_writer.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/text_format.h>

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
  for (std::int64_t i = 0; i < count; ++i) {
    reflection.AddFloat(message, data, value(random));
  }
}

}  // namespace

std::string MakeCaffeModel(const std::string& prototxt, const std::vector<CaffeBlob>& blobs) {
  pb::FileDescriptorSet files;
  static_cast<void>(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory(&pool);
  const std::unique_ptr<pb::Message> net(
      factory.GetPrototype(pool.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter"))
          ->New());
  pb::TextFormat::Parser parser;
  parser.AllowUnknownField(true);
  if (!parser.ParseFromString(prototxt, net.get())) {
    throw std::runtime_error("the description does not parse");
  }

  const pb::Reflection& reflection = *net->GetReflection();
  const pb::FieldDescriptor* const layers = FieldOf(*net, "layer");
  auto blob = blobs.begin();
  std::minstd_rand random(20);
  for (int i = 0; i < reflection.FieldSize(*net, layers); ++i) {
    pb::Message* layer = reflection.MutableRepeatedMessage(net.get(), layers, i);
    const std::string name = layer->GetReflection()->GetString(*layer, FieldOf(*layer, "name"));
    for (; blob != blobs.end() && blob->layer == name; ++blob) {
      AddBlob(*layer, *blob, random);
    }
  }
  if (blob != blobs.end()) {
    throw std::runtime_error("no layer " + blob->layer);
  }
  return net->SerializeAsString();
}

std::string VarintField(int number, std::uint64_t value) {
  return Varint(static_cast<std::uint64_t>(number) << 3) + Varint(value);
}

std::string BytesField(int number, const std::string& bytes) {
  return Varint(static_cast<std::uint64_t>(number) << 3 | 2) + Varint(bytes.size()) + bytes;
}

}  // namespace velmora::test
