#include "images.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;

/// An image's place without regard to how it was written, symbolic links left as they are: two
/// links to one file may have two truths.
fs::path Normal(const fs::path& path) { return (fs::current_path() / path).lexically_normal(); }

std::string LowerExtension(const fs::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(), [](char c) {
    return 'A' <= c && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return extension;
}

/// By the name, and not by whether it decodes: a damaged image must be reported, not passed over.
bool IsImageName(const fs::path& path) {
  static const std::set<std::string> kExtensions = {
      ".bmp", ".dib", ".exr", ".hdr", ".jp2", ".jpe", ".jpeg", ".jpg", ".pbm",  ".pgm", ".pic",
      ".png", ".pnm", ".ppm", ".pxm", ".ras", ".sr",  ".pam",  ".tif", ".tiff", ".webp"};
  return kExtensions.contains(LowerExtension(path));
}

std::vector<std::string> ListFolder(const std::string& folder) {
  std::vector<std::string> images;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    // A link to nowhere counts: reading it will tell what is wrong.
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

/// Catches what libpng, libjpeg and the other codecs write to standard error by themselves.
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

// A kilobyte can claim a billion pixels. No camera takes more than this (the largest of telephones
// 200 million), which are 0.8 GB in colour.
constexpr double kMostPixels = 16384.0 * 16384.0;

/// While there is one, a matrix of more pixels is an error. OpenCV knows an image's size from its
/// header when it makes the matrix to decode it to; the limit of its own
/// (OPENCV_IO_MAX_IMAGE_PIXELS) is read before main() begins, and a billion unless the user sets
/// it.
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

/// At least one pixel, whatever the ratio of an image.
cv::Size Scaled(const cv::Size& size, double factor) {
  return {std::max(cvRound(size.width * factor), 1), std::max(cvRound(size.height * factor), 1)};
}

/// The largest size with the ratio of `image` that does not go beyond `size`.
cv::Size SizeWithin(const cv::Size& image, const cv::Size& size) {
  const double factor = std::min(1.0 * size.width / image.width, 1.0 * size.height / image.height);
  return Scaled(image, factor);
}

/// The part in the middle of an image that "crop" leaves.
cv::Mat Middle(const cv::Mat& image, const Model& model) {
  const cv::Size size = Scaled(SizeWithin(model.size, image.size()), model.crop_fraction);
  return image(
      {(image.cols - size.width) / 2, (image.rows - size.height) / 2, size.width, size.height});
}

/// The fields of one line of CSV.
std::vector<std::string> SplitCsv(std::string_view line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"' && quoted && line.substr(i + 1).starts_with('"')) {
      fields.back() += '"';
      ++i;
    } else if (line[i] == '"') {
      quoted = !quoted;
    } else if (line[i] == ',' && !quoted) {
      fields.emplace_back();
    } else {
      fields.back() += line[i];
    }
  }
  if (quoted) {
    throw std::runtime_error("a quotation mark is not closed");
  }
  return fields;
}

/// Folder and name of a file.
using Place = std::pair<std::string, std::string>;

Place PlaceOf(const fs::path& path) {
  const fs::path normal = Normal(path);
  return {normal.parent_path().string(), normal.filename().string()};
}

/// Reads one truth file; `*number` is the line that it is at. With `any_folder`, a bare name has no
/// folder.
std::map<Place, std::string> ReadTruth(const std::string& path, bool any_folder,
                                       const std::vector<std::string>& labels,
                                       std::size_t* number) {
  std::map<Place, std::string> truth;
  std::istringstream text(ReadFile(path));
  for (std::string line; std::getline(text, line);) {
    ++*number;
    if (*number == 1 && line.starts_with("\xEF\xBB\xBF")) {  // spreadsheets mark their UTF-8
      line.erase(0, 3);
    }
    if (line.ends_with('\r')) {
      line.pop_back();
    }
    const std::vector<std::string> fields = SplitCsv(line);
    if (*number == 1) {
      if (line != "file,label") {
        throw std::runtime_error("expected the header \"file,label\"");
      }
    } else if (!line.empty()) {
      if (fields.size() != 2 || fields[0].empty()) {
        throw std::runtime_error("expected a file and a label");
      }
      if (std::find(labels.begin(), labels.end(), fields[1]) == labels.end()) {
        throw std::runtime_error(fmt::format("the model has no label \"{}\"", fields[1]));
      }
      const bool bare = any_folder && fields[0].find('/') == std::string::npos;
      const Place place =
          bare ? Place("", fields[0]) : PlaceOf(fs::path(path).parent_path() / fields[0]);
      if (!truth.emplace(place, fields[1]).second) {
        throw std::runtime_error(fmt::format("\"{}\" is listed twice", fields[0]));
      }
    }
  }
  return truth;
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
      if (listed.insert(Normal(image)).second) {
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
  // libjpeg fills up with gray what a file cut short does not hold, and only remarks on it.
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
  prepared.convertTo(prepared, CV_32F);  // from here on, not the caller's pixels
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

std::map<std::string, std::string> FindTruth(const std::vector<std::string>& images,
                                             const std::string& file,
                                             const std::vector<std::string>& labels,
                                             Console* console) {
  std::set<std::string> files;
  if (!file.empty()) {
    files.insert(file);
  }
  for (const std::string& image : images) {
    const fs::path beside = fs::path(image).parent_path() / "truth.csv";
    std::error_code ignored;
    if (file.empty() && fs::exists(beside, ignored)) {
      files.insert(beside.string());
    }
  }
  std::map<Place, std::string> known;
  for (const std::string& path : files) {
    std::size_t line = 0;
    try {
      known.merge(ReadTruth(path, !file.empty(), labels, &line));
    } catch (...) {
      console->Error(line > 0 ? fmt::format("{}:{}", path, line) : path, CurrentError());
    }
  }
  std::map<std::string, std::string> truth;
  for (const std::string& image : images) {
    const Place place = PlaceOf(image);
    for (const Place& key : {place, Place("", place.second)}) {
      if (const auto found = known.find(key); found != known.end()) {
        truth.emplace(image, found->second);
      }
    }
  }
  if (!file.empty() && !known.empty() && truth.empty()) {
    console->Error(file, "names none of the images");
  }
  return truth;
}

Annotator::Annotator(std::string folder, const std::vector<std::string>& images)
    : folder_(std::move(folder), images) {}

void Annotator::Write(const std::string& path, const cv::Mat& image,
                      const std::vector<std::string>& lines, const cv::Scalar& colour) {
  constexpr int kReadable = 192;  // pixels of the longer side
  constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

  cv::Mat picture;
  const int longer_side = std::max(image.cols, image.rows);
  const int factor = (kReadable + longer_side - 1) / longer_side;
  cv::resize(image, picture, cv::Size(), factor, factor, cv::INTER_NEAREST);
  if (picture.channels() == 1) {
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  }

  const double font_scale = std::max(0.5, longer_side / 1000.0);
  const int thickness = static_cast<int>(std::lround(font_scale + 0.5));
  const int line_height = static_cast<int>(std::lround(36 * font_scale));
  const int margin = line_height / 4;
  int width = picture.cols;
  for (const std::string& line : lines) {
    width = std::max(
        width, cv::getTextSize(line, kFont, font_scale, thickness, nullptr).width + 2 * margin);
  }
  const int below = line_height * static_cast<int>(lines.size()) + margin;
  cv::Mat canvas;
  cv::copyMakeBorder(picture, canvas, 0, below, 0, width - picture.cols, cv::BORDER_CONSTANT);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const int baseline = picture.rows + line_height * static_cast<int>(i + 1) - margin;
    cv::putText(canvas, lines[i], {margin, baseline}, kFont, font_scale, colour, thickness,
                cv::LINE_AA);
  }

  const fs::path name = fs::path(path).filename();
  const bool is_png = LowerExtension(name) == ".png";
  std::vector<unsigned char> bytes;
  cv::imencode(".png", canvas, bytes);
  folder_.Write((is_png ? name.stem() : name).string(), is_png ? name.extension().string() : ".png",
                {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

}  // namespace velmora::tool
