#include "images.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <stdexcept>
#include <system_error>

#include "errors.h"
#include "files.h"

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;

/// Judges by the name alone: a damaged image must be reported, not passed over.
bool IsImageName(const fs::path& path) {
  static const std::set<std::string> kExtensions = {
      ".bmp", ".dib", ".exr", ".hdr", ".jp2", ".jpe", ".jpeg", ".jpg", ".pbm",  ".pgm", ".pic",
      ".png", ".pnm", ".ppm", ".pxm", ".ras", ".sr",  ".pam",  ".tif", ".tiff", ".webp"};
  return kExtensions.contains(LowerExtension(path));
}

std::vector<std::string> ListFolder(const std::string& folder) {
  std::vector<std::string> images;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    // A dangling link counts: reading it reports the error.
    std::error_code ignored;
    if (IsImageName(entry.path()) && !entry.is_directory(ignored)) {
      images.push_back(entry.path().string());
    }
  }
  if (images.empty()) {
    throw std::runtime_error("no images in this folder");
  }
  std::sort(images.begin(), images.end());
  return images;
}

/// Catches what libpng, libjpeg and other codecs print on standard error.
class CodecMessages {
 public:
  CodecMessages()
      : standard_error_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)),
        caught_(memfd_create("codec messages", MFD_CLOEXEC)) {
    if (standard_error_ >= 0 && caught_ >= 0) {
      dup2(caught_, STDERR_FILENO);
    }
  }
  CodecMessages(const CodecMessages&) = delete;
  CodecMessages& operator=(const CodecMessages&) = delete;
  ~CodecMessages() {
    if (standard_error_ >= 0) {
      dup2(standard_error_, STDERR_FILENO);
      close(standard_error_);
    }
    if (caught_ >= 0) {
      close(caught_);
    }
  }

  std::string Text() const {
    std::string text(4096, '\0');
    const ssize_t size = caught_ >= 0 ? pread(caught_, text.data(), text.size(), 0) : 0;
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
  }

 private:
  int standard_error_;
  int caught_;
};

// A file of a kilobyte can claim a billion pixels. These are 0.8 GB in colour, and more than any
// camera takes.
constexpr double kMostPixels = 16384.0 * 16384.0;

/// While an object lives, a matrix of more pixels is an error. OpenCV allocates the matrix by the
/// size in the image's header; its own limit, OPENCV_IO_MAX_IMAGE_PIXELS, is read before main().
class PixelLimit : public cv::MatAllocator {
 public:
  PixelLimit() : others_(cv::Mat::getDefaultAllocator()) { cv::Mat::setDefaultAllocator(this); }
  PixelLimit(const PixelLimit&) = delete;
  PixelLimit& operator=(const PixelLimit&) = delete;
  ~PixelLimit() override { cv::Mat::setDefaultAllocator(others_); }

  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (dims == 2 && 1.0 * sizes[0] * sizes[1] > kMostPixels) {
      throw std::runtime_error(fmt::format("{} x {} pixels are more than the {:.0f} that are read",
                                           sizes[1], sizes[0], kMostPixels));
    }
    return others_->allocate(dims, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return others_->allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override { others_->deallocate(data); }

 private:
  cv::MatAllocator* others_;
};

/// At least one pixel, whatever the aspect ratio.
cv::Size Scaled(const cv::Size& size, double factor) {
  return {std::max(cvRound(size.width * factor), 1), std::max(cvRound(size.height * factor), 1)};
}

/// The largest size with the aspect ratio of `image` that fits in `size`.
cv::Size SizeWithin(const cv::Size& image, const cv::Size& size) {
  const double factor = std::min(1.0 * size.width / image.width, 1.0 * size.height / image.height);
  return Scaled(image, factor);
}

/// The centre of an image that "crop" keeps.
cv::Mat Middle(const cv::Mat& image, const Model& model) {
  const cv::Size size = Scaled(SizeWithin(model.size, image.size()), model.crop_fraction);
  return image(
      {(image.cols - size.width) / 2, (image.rows - size.height) / 2, size.width, size.height});
}

}  // namespace

std::vector<std::string> ListImages(const std::vector<std::string>& named, Console* console) {
  std::vector<std::string> images;
  std::set<fs::path> listed;
  for (const std::string& name : named) {
    std::vector<std::string> found = {name};
    try {
      if (fs::is_directory(name)) {
        found = ListFolder(name);
      }
    } catch (...) {
      console->Error(name, CurrentError());
      continue;
    }
    for (std::string& image : found) {
      if (listed.insert(NormalPath(image)).second) {
        images.push_back(std::move(image));
      }
    }
  }
  return images;
}

cv::Mat ReadImage(const std::string& path, Channels channels) {
  CheckReadable(path);
  const CodecMessages messages;
  const PixelLimit limit;
  const int flags = channels == Channels::kGray ? cv::IMREAD_GRAYSCALE : cv::IMREAD_COLOR;
  cv::Mat image = cv::imread(path, flags);
  if (image.empty()) {
    throw std::runtime_error("cannot be decoded as an image");
  }
  // libjpeg fills the missing part of a truncated file with gray, and only prints a warning.
  if (messages.Text().find("Premature end") != std::string::npos) {
    throw std::runtime_error("the image is cut short");
  }
  return image;
}

cv::Mat MadeUpImage(const Model& model) {
  cv::Mat noise(model.size, model.channels == Channels::kGray ? CV_8UC1 : CV_8UC3);
  cv::RNG(1).fill(noise, cv::RNG::UNIFORM, 0, 256);
  return noise;
}

cv::Mat Prepare(const cv::Mat& image, const Model& model) {
  cv::Mat prepared = model.fit == Fit::kCrop ? Middle(image, model) : image;
  const cv::Size size =
      model.fit == Fit::kLetterbox ? SizeWithin(image.size(), model.size) : model.size;
  if (prepared.size() != size) {
    const bool shrinks = prepared.cols >= size.width && prepared.rows >= size.height;
    cv::resize(prepared, prepared, size, 0, 0, shrinks ? cv::INTER_AREA : cv::INTER_LINEAR);
  }
  prepared.convertTo(prepared, CV_32F);  // a copy: the caller's pixels stay as they are
  if (model.channels == Channels::kRgb) {
    cv::cvtColor(prepared, prepared, cv::COLOR_BGR2RGB);
  }
  if (size != model.size) {
    const int left = (model.size.width - size.width) / 2;
    const int above = (model.size.height - size.height) / 2;
    cv::copyMakeBorder(prepared, prepared, above, model.size.height - size.height - above, left,
                       model.size.width - size.width - left, cv::BORDER_CONSTANT,
                       model.letterbox_color);
  }
  cv::subtract(prepared, model.mean, prepared);
  cv::multiply(prepared, model.scale, prepared);
  return prepared;
}

}  // namespace velmora::tool
