#include "caffe/caffe_model.h"

#include <google/protobuf/text_format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "caffe/binary_walk.h"
#include "caffe/description.h"
#include "caffe/rules.h"

namespace velmora::plugin::network::guards {
namespace {

void Write(const File& file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(file.fd(), text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "Cannot write a Caffe description");
    }
  }
}

const char* const kNotRegular = "not a regular file";
const char* const kTooMuch = "more than 16 MiB, or 100,000 layers and blobs, besides the weights";

// Returns why a single-file model is refused, or "" and its description in `text`.
std::string RefusalOf(const File& model, std::string& text) {
  if (!model.is_open()) {
    return std::generic_category().message(model.error());
  }
  if (!model.is_regular()) {
    return kNotRegular;
  }
  Format format;
  const auto net = format.NewNet();
  if (const Parsed parsed = ParseBinary(model, *net); parsed != Parsed::kModel) {
    return parsed == Parsed::kTooMuch ? kTooMuch : "not a binary Caffe model";
  }
  if (!net->IsInitialized()) {
    return "no value of " + net->InitializationErrorString();
  }
  if (std::ranges::none_of(LayersOf(*net),
                           [](const auto* layer) { return Count(*layer, "bottom") > 0; })) {
    return "no layer reads anything: weights of a pair, without the description";
  }
  if (CountOldest(*net) > 0) {
    return "layers of the oldest form, which have to be upgraded";
  }
  // As text, unknown fields would appear as numbers, which OpenCV does not read.
  net->DiscardUnknownFields();
  std::string reason = BadModel(*net, *net, model.size());
  if (reason.empty() && !pb::TextFormat::PrintToString(*net, &text)) {
    reason = "too deeply nested";
  }
  return reason;
}

}  // namespace

std::string RefusalOfCaffePair(const std::string& prototxt_path,
                               const std::string& caffemodel_path) {
  // Files that cannot be opened or parsed are left to OpenCV, whose exception names the file.
  Format format;
  const auto description = format.NewNet();
  const auto weights = format.NewNet();
  int size = 0;
  const File text(prototxt_path);
  if (!text.is_open()) {
    return {};
  }
  if (!text.is_regular()) {
    return prototxt_path + ": " + kNotRegular;
  }
  if (IsTooMuchText(text)) {
    return prototxt_path + ": " + kTooMuch;
  }
  if (!ParseText(text, *description)) {
    return {};
  }

  if (!caffemodel_path.empty()) {  // otherwise OpenCV makes a network without weights
    const File model(caffemodel_path);
    if (!model.is_open()) {
      return {};
    }
    size = model.size();
    if (!model.is_regular()) {
      return caffemodel_path + ": " + kNotRegular;
    }
    if (const Parsed parsed = ParseBinary(model, *weights); parsed != Parsed::kModel) {
      return parsed == Parsed::kTooMuch ? caffemodel_path + ": " + kTooMuch : std::string();
    }
  }
  const std::string reason = BadModel(*description, *weights, size);
  return reason.empty() ? reason : prototxt_path + ": " + reason;
}

std::string RefusalOfCaffeBinary(const std::string& path) {
  std::string text;
  const std::string reason = RefusalOf(File(path), text);
  return reason.empty() ? reason : path + ": " + reason;
}

std::vector<std::int64_t> InputOfCaffePair(const std::string& prototxt_path) {
  Format format;
  const auto net = format.NewNet();
  const File text(prototxt_path);
  return text.is_open() && text.is_regular() && ParseText(text, *net) ? InputOf(*net)
                                                                      : std::vector<std::int64_t>();
}

std::vector<std::int64_t> InputOfCaffeBinary(const std::string& path) {
  Format format;
  const auto net = format.NewNet();
  const File model(path);
  return model.is_open() && model.is_regular() && ParseBinary(model, *net) == Parsed::kModel
             ? InputOf(*net)
             : std::vector<std::int64_t>();
}

::cv::dnn::Net ReadCaffePair(const std::string& prototxt_path, const std::string& caffemodel_path) {
  return RefusalOfCaffePair(prototxt_path, caffemodel_path).empty()
             ? ::cv::dnn::readNetFromCaffe(prototxt_path, caffemodel_path)
             : ::cv::dnn::Net();
}

::cv::dnn::Net ReadCaffeBinary(const std::string& path) {
  const File model(path);
  std::string text;
  if (!RefusalOf(model, text).empty()) {
    return {};
  }
  // OpenCV accepts descriptions only as text. It finds the weights in the model itself, by the
  // names of the layers.
  const File description(memfd_create("caffe-description", MFD_CLOEXEC));
  Write(description, text);
  return ::cv::dnn::readNetFromCaffe(description.path(), model.path());
}

}  // namespace velmora::plugin::network::guards
