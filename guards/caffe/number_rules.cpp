#include <algorithm>
#include <climits>
#include <iterator>
#include <string_view>

#include "caffe/rules.h"

namespace velmora::plugin::network::guards {
namespace {

// Numbers outside these limits make OpenCV divide by zero, overflow or access memory outside its
// arrays. OpenCV merges all parameter messages of a layer into one list, so only the name of a
// number matters, not where it is set.
struct NumberLimit {
  std::string_view layer_type;  // as returned by KeyOf; empty for every type
  std::string_view name;
  std::int64_t min;
  std::int64_t max;
};
constexpr std::int64_t kLastAxis = 31;
constexpr std::int64_t kBelowCount = INT64_MAX;  // less than the count of such numbers
constexpr std::int64_t kMaxPad = INT_MAX / 4;    // two of them and a window fit in an int
constexpr NumberLimit kNumberLimits[] = {
    {"", "axis", -kLastAxis, kLastAxis},
    {"", "group", 1, INT_MAX},
    {"", "pad", 0, kMaxPad},
    {"", "pad_h", 0, kMaxPad},
    {"", "pad_w", 0, kMaxPad},
    {"convolution", "num_output", 1, INT_MAX},
    {"convolutiondepthwise", "num_output", 1, INT_MAX},
    {"cumsum", "axis", -1, -1},
    {"deconvolution", "num_output", 1, INT_MAX},
    {"innerproduct", "num_output", 1, INT_MAX},
    {"permute", "order", 0, kBelowCount},
    {"proposal", "post_nms_topn", 0, INT_MAX},
    {"scale", "axis", 0, kLastAxis},
};

// Appends the numbers called `name` in a message and those nested in it.
void AddNumbers(const pb::Message& message, std::string_view name,
                std::vector<std::int64_t>& numbers) {
  for (const pb::FieldDescriptor* field : FieldsIn(message)) {
    for (const pb::Message* inner : MessagesIn(message, field)) {
      AddNumbers(*inner, name, numbers);
    }
    if (field->name() == name) {
      std::ranges::copy(NumbersIn(message, field), std::back_inserter(numbers));
    }
  }
}

bool FitInInt(std::int64_t a, std::int64_t b) { return a == 0 || b <= INT_MAX / a; }

}  // namespace

std::vector<std::int64_t> NumbersOf(const pb::Message& layer, std::string_view name) {
  std::vector<std::int64_t> numbers;
  AddNumbers(layer, name, numbers);
  return numbers;
}

std::string BadNumber(const pb::Message& layer, const std::string& type) {
  const auto is = [](std::string_view name, std::int64_t number) {
    return std::string(name) + " is " + std::to_string(number) + ", ";
  };
  for (const NumberLimit& limit : kNumberLimits) {
    if (!limit.layer_type.empty() && limit.layer_type != type) {
      continue;
    }
    const std::vector<std::int64_t> numbers = NumbersOf(layer, limit.name);
    const std::int64_t max =
        limit.max == kBelowCount ? static_cast<std::int64_t>(numbers.size()) - 1 : limit.max;
    for (const std::int64_t number : numbers) {
      if (number >= limit.min && number <= max) {
        continue;
      }
      return is(limit.name, number) + "which must be " + std::to_string(limit.min) + " to " +
             std::to_string(max);
    }
  }
  // OpenCV stores the area of a pooling window and the extent of a dilated one in an int.
  if (type == "pooling") {
    for (const char* const name : {"kernel_size", "kernelsize"}) {  // new forms and the oldest
      for (const std::int64_t side : NumbersOf(layer, name)) {
        if (!FitInInt(side, side)) {
          return is(name, side) + "too large for an area";
        }
      }
    }
    for (const std::int64_t height : NumbersOf(layer, "kernel_h")) {
      for (const std::int64_t width : NumbersOf(layer, "kernel_w")) {
        if (FitInInt(height, width)) {
          continue;
        }
        return is("kernel_h", height) + is("kernel_w", width) + "too large for an area";
      }
    }
  } else if (type.starts_with("convolution")) {
    for (const std::int64_t dilation : NumbersOf(layer, "dilation")) {
      for (const char* const name : {"kernel_size", "kernel_h", "kernel_w"}) {
        for (const std::int64_t size : NumbersOf(layer, name)) {
          if (FitInInt(dilation, size)) {
            continue;
          }
          return is("dilation", dilation) + is(name, size) + "too large together";
        }
      }
    }
  }
  return {};
}

}  // namespace velmora::plugin::network::guards
