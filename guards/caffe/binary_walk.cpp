#include "caffe/binary_walk.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::plugin::network::guards {
namespace {

using WireFormat = pb::internal::WireFormatLite;

enum class Level { kNet, kLayer, kBlob };

bool IsNext(Level level, const pb::FieldDescriptor& field) {
  return level == Level::kNet     ? field.name() == "layer" || field.name() == "layers"
         : level == Level::kLayer ? field.name() == "blobs"
                                  : false;
}

// Copies a binary model, except what it skips.
class BinaryWalk {
 public:
  explicit BinaryWalk(const File& file) : file_(file.fd()), in_(&file_) {
    in_.SetTotalBytesLimit(INT_MAX);
    static_cast<void>(in_.PushLimit(file.size()));
  }

  bool is_too_much() const { return is_too_much_; }

  // Returns false if protobuf would reject the bytes as well, or if they are too much.
  bool Message(const pb::Descriptor* type, std::string& out, Level level) {
    while (in_.BytesUntilLimit() > 0) {
      std::uint32_t tag = 0;
      if (!in_.ReadVarint32(&tag)) {
        return false;
      }
      // In the outermost message, a zero tag or an unmatched end of a group ends the message, and
      // what follows is ignored. In nested messages, protobuf treats both as errors.
      if (tag == 0 || WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_END_GROUP) {
        return level == Level::kNet;
      }
      const pb::FieldDescriptor* field =
          type->FindFieldByNumber(WireFormat::GetTagFieldNumber(tag));
      const bool is_number = WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_VARINT;
      const bool is_bytes =
          WireFormat::GetTagWireType(tag) == WireFormat::WIRETYPE_LENGTH_DELIMITED;
      const bool holds_values = level == Level::kBlob && field != nullptr && !is_number &&
                                field->cpp_type() != pb::FieldDescriptor::CPPTYPE_MESSAGE;
      if (field == nullptr || holds_values) {
        if (!WireFormat::SkipField(&in_, tag)) {
          return false;
        }
      } else if (is_bytes && IsNext(level, *field)) {
        if (!Nested(tag, field->message_type(), out, level)) {
          return false;
        }
      } else if (!Copy(tag, out)) {
        return false;
      }
    }
    return true;
  }

 private:
  bool Nested(std::uint32_t tag, const pb::Descriptor* type, std::string& outer, Level level) {
    int size = 0;
    if (!ReadSize(size)) {
      return false;
    }
    if (++messages_ > kMaxMessages) {
      return TooMuch();
    }
    const auto limit = in_.PushLimit(size);
    std::string copy;
    if (!Message(type, copy, level == Level::kNet ? Level::kLayer : Level::kBlob)) {
      return false;
    }
    in_.PopLimit(limit);
    return Append(tag, outer) && Append(copy.size(), outer) && Append(copy, outer);
  }

  bool Copy(std::uint32_t tag, std::string& out) {
    std::uint64_t number = 0;
    int size = 0;
    switch (WireFormat::GetTagWireType(tag)) {
      case WireFormat::WIRETYPE_VARINT:
        return in_.ReadVarint64(&number) && Append(tag, out) && Append(number, out);
      case WireFormat::WIRETYPE_FIXED32:
        return Append(tag, out) && CopyBytes(4, out);
      case WireFormat::WIRETYPE_LENGTH_DELIMITED:
        return ReadSize(size) && Append(tag, out) &&
               Append(static_cast<std::uint64_t>(size), out) && CopyBytes(size, out);
      default:  // the format has no such fields
        return WireFormat::SkipField(&in_, tag);
    }
  }

  bool CopyBytes(int size, std::string& out) {
    if (static_cast<std::size_t>(size) > kMaxSkeleton) {
      return TooMuch();
    }
    std::string bytes;
    return in_.ReadString(&bytes, size) && Append(bytes, out);
  }

  bool ReadSize(int& size) {
    return in_.ReadVarintSizeAsInt(&size) && size <= in_.BytesUntilLimit();
  }

  bool Append(std::string_view bytes, std::string& out) {
    out += bytes;
    return out.size() <= kMaxSkeleton || TooMuch();
  }

  bool Append(std::uint64_t varint, std::string& out) {
    std::uint8_t bytes[10];
    std::uint8_t* const end = pb::io::CodedOutputStream::WriteVarint64ToArray(varint, bytes);
    return Append(std::string(bytes, end), out);
  }

  bool TooMuch() {
    is_too_much_ = true;
    return false;
  }

  pb::io::FileInputStream file_;
  pb::io::CodedInputStream in_;
  int messages_ = 0;
  bool is_too_much_ = false;
};

}  // namespace

Parsed ParseBinary(const File& file, pb::Message& net) {
  BinaryWalk walk(file);
  std::string skeleton;
  const bool is_message = walk.Message(net.GetDescriptor(), skeleton, Level::kNet);
  return walk.is_too_much()                                   ? Parsed::kTooMuch
         : is_message && net.ParsePartialFromString(skeleton) ? Parsed::kModel
                                                              : Parsed::kNoModel;
}

}  // namespace velmora::plugin::network::guards
