#pragma once

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "caffe/file.h"
#include "caffe/format.h"

namespace velmora::plugin::network::guards {

// Copies a binary model without the values in its blobs and without fields that the format lacks,
// which it skips instead of loading them.
class BinaryWalk {
 public:
  BinaryWalk(const File& file, const pb::Descriptor* net);

  // False if protobuf would reject the bytes as well, or if they exceed the limits in format.h.
  bool is_message() const { return is_message_; }
  bool is_too_much() const { return is_too_much_; }

  const std::string& skeleton() const { return skeleton_; }

 private:
  enum class Level { kNet, kLayer, kBlob };

  static bool IsNext(Level level, const pb::FieldDescriptor& field);
  bool Message(const pb::Descriptor* type, std::string& out, Level level);
  bool Nested(std::uint32_t tag, const pb::Descriptor* type, std::string& outer, Level level);
  bool Copy(std::uint32_t tag, std::string& out);
  bool CopyBytes(int size, std::string& out);
  bool ReadSize(int& size);
  bool Append(std::string_view bytes, std::string& out);
  bool Append(std::uint64_t varint, std::string& out);
  bool TooMuch();

  pb::io::FileInputStream file_;
  pb::io::CodedInputStream in_;
  std::string skeleton_;
  int messages_ = 0;
  bool is_message_ = false;
  bool is_too_much_ = false;
};

}  // namespace velmora::plugin::network::guards
