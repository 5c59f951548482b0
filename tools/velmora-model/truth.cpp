#include "truth.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "errors.h"
#include "files.h"

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;

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
  const fs::path normal = NormalPath(path);
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

}  // namespace velmora::tool
