// The format of Caffe models, and how its messages are read.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace velmora::plugin::network::guards {

namespace pb = ::google::protobuf;

// For a model without its values; one of a thousand layers takes 100 KB. The limits keep a hostile
// file from being blown up in memory: an empty layer has three bytes there and a kilobyte here.
constexpr std::size_t kMaxSkeleton = std::size_t{16} << 20;
constexpr int kMaxMessages = 100'000;  // layers and blobs; in a text, messages of any kind

// The format as messages made at run time. Generated classes would enter themselves in a table that
// libprotobuf keeps for the whole process, and loading this library, unloading it and loading it
// again would end the process there.
class Format {
 public:
  Format();

  const pb::Descriptor* net() const { return net_; }

  std::unique_ptr<pb::Message> NewNet() {
    return std::unique_ptr<pb::Message>(factory_.GetPrototype(net_)->New());
  }

 private:
  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_;
  const pb::Descriptor* net_ = nullptr;
};

const pb::FieldDescriptor* FieldOf(const pb::Message& message, const std::string& name);

// How many values a field has; 0 or 1 for one that is not repeated.
int Count(const pb::Message& message, const pb::FieldDescriptor* field);
int Count(const pb::Message& message, const std::string& field);

std::vector<const pb::FieldDescriptor*> FieldsIn(const pb::Message& message);

// The messages in a field, none if it holds something else.
std::vector<const pb::Message*> MessagesIn(const pb::Message& message,
                                           const pb::FieldDescriptor* field);

// The whole numbers in a field, none if it holds something else.
std::vector<std::int64_t> NumbersIn(const pb::Message& message, const pb::FieldDescriptor* field);

// What a field of text or an enumeration says; empty without one.
std::string TextIn(const pb::Message& message, const std::string& name);

}  // namespace velmora::plugin::network::guards
