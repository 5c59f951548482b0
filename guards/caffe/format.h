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

// Limits for a model without its values (a thousand layers take 100 KB). They keep a hostile file
// from exhausting the memory: an empty layer of three bytes takes a kilobyte as a message.
constexpr std::size_t kMaxSkeleton = std::size_t{16} << 20;
constexpr int kMaxMessages = 100'000;  // layers and blobs; in a text, messages of any kind

// Creates the format's messages at run time. Generated classes would register themselves in a
// process-wide table of libprotobuf, which would abort the process if this library were unloaded
// and loaded again.
class Format {
 public:
  Format();

  std::unique_ptr<pb::Message> NewNet() {
    return std::unique_ptr<pb::Message>(factory_.GetPrototype(net_)->New());
  }

 private:
  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_;
  const pb::Descriptor* net_ = nullptr;
};

const pb::FieldDescriptor* FieldOf(const pb::Message& message, const std::string& name);

// Returns the number of values in a field, which is 0 or 1 if it is not repeated.
int Count(const pb::Message& message, const pb::FieldDescriptor* field);
int Count(const pb::Message& message, const std::string& field);

std::vector<const pb::FieldDescriptor*> FieldsIn(const pb::Message& message);

// Return the messages or integers in a field, or nothing if it has another type.
std::vector<const pb::Message*> MessagesIn(const pb::Message& message,
                                           const pb::FieldDescriptor* field);
std::vector<std::int64_t> NumbersIn(const pb::Message& message, const pb::FieldDescriptor* field);

// Returns the text of a string or the name of an enumerator, or "" if the field is not set.
std::string TextIn(const pb::Message& message, const std::string& name);

}  // namespace velmora::plugin::network::guards
