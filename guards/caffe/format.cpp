#include "caffe/format.h"

#include <google/protobuf/descriptor.pb.h>

#include "caffe_format.h"

namespace velmora::plugin::network::guards {

Format::Format() : factory_(&pool_) {
  pb::FileDescriptorSet files;
  static_cast<void>(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
  net_ = pool_.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter");
}

const pb::FieldDescriptor* FieldOf(const pb::Message& message, const std::string& name) {
  return message.GetDescriptor()->FindFieldByName(name);
}

int Count(const pb::Message& message, const pb::FieldDescriptor* field) {
  const pb::Reflection& reflection = *message.GetReflection();
  return field->is_repeated() ? reflection.FieldSize(message, field)
                              : static_cast<int>(reflection.HasField(message, field));
}

int Count(const pb::Message& message, const std::string& field) {
  return Count(message, FieldOf(message, field));
}

std::vector<const pb::FieldDescriptor*> FieldsIn(const pb::Message& message) {
  std::vector<const pb::FieldDescriptor*> fields;
  message.GetReflection()->ListFields(message, &fields);
  return fields;
}

std::vector<const pb::Message*> MessagesIn(const pb::Message& message,
                                           const pb::FieldDescriptor* field) {
  const pb::Reflection& reflection = *message.GetReflection();
  std::vector<const pb::Message*> messages;
  if (field->cpp_type() != pb::FieldDescriptor::CPPTYPE_MESSAGE) {
    return messages;
  }
  for (int i = 0; i < Count(message, field); ++i) {
    messages.push_back(field->is_repeated() ? &reflection.GetRepeatedMessage(message, field, i)
                                            : &reflection.GetMessage(message, field));
  }
  return messages;
}

std::vector<std::int64_t> NumbersIn(const pb::Message& message, const pb::FieldDescriptor* field) {
  const pb::Reflection& r = *message.GetReflection();
  const bool repeated = field->is_repeated();
  std::vector<std::int64_t> numbers;
  for (int i = 0; i < Count(message, field); ++i) {
    switch (field->cpp_type()) {
      case pb::FieldDescriptor::CPPTYPE_INT32:
        numbers.push_back(repeated ? r.GetRepeatedInt32(message, field, i)
                                   : r.GetInt32(message, field));
        break;
      case pb::FieldDescriptor::CPPTYPE_UINT32:
        numbers.push_back(repeated ? r.GetRepeatedUInt32(message, field, i)
                                   : r.GetUInt32(message, field));
        break;
      case pb::FieldDescriptor::CPPTYPE_INT64:
        numbers.push_back(repeated ? r.GetRepeatedInt64(message, field, i)
                                   : r.GetInt64(message, field));
        break;
      default:
        break;
    }
  }
  return numbers;
}

std::string TextIn(const pb::Message& message, const std::string& name) {
  const pb::FieldDescriptor* field = FieldOf(message, name);
  if (Count(message, field) == 0) {
    return {};
  }
  const pb::Reflection& reflection = *message.GetReflection();
  return field->enum_type() == nullptr
             ? reflection.GetString(message, field)
             : std::string(field->enum_type()
                               ->FindValueByNumber(reflection.GetEnumValue(message, field))
                               ->name());
}

}  // namespace velmora::plugin::network::guards
