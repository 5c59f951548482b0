#include "outputs.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>

#include "commands.h"
#include "common.h"
#include "images.h"
#include "model.h"
#include "npy.h"
#include "options.h"
#include "output_folder.h"

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;
using plugin::network::OutputMap;

constexpr char kHelp[] = R"(For networks whose answer is not one probability for each label, such as
detectors. Prints of each output the number of values, the least, the mean and
the greatest of those that are finite, how many are not, and the shape. A saved
output is FOLDER/IMAGE.OUTPUT.npy, 32-bit floats for NumPy.
)";

struct OutputsOptions {
  std::string model;
  std::vector<std::string> images;
  std::optional<Backend> backend;  // none for the factory's choice
  bool json = false;
  std::string save;  // folder; empty for none
};

struct Output {
  OutputSummary summary;
  std::string saved;  // path; empty when it is not
};

/// What came of one image: outputs, or an error instead.
struct Result {
  std::string file;
  std::vector<Output> outputs;
  std::string error;
};

/// An output's name within a file's name.
std::string FileNamePart(const std::string& name) {
  std::string part = name;
  std::replace_if(
      part.begin(), part.end(),
      [](unsigned char c) { return std::isalnum(c) == 0 && c != '-' && c != '_' && c != '.'; },
      '_');
  return part;
}

void PrintTable(const std::vector<Result>& results) {
  int file_width = 4;
  int name_width = 6;
  for (const Result& result : results) {
    file_width = std::max(file_width, Width(OneLine(result.file)));
    for (const Output& output : result.outputs) {
      name_width = std::max(name_width, Width(OneLine(output.summary.name)));
    }
  }
  Print(fmt::format("{:<{}}  {:<{}}  {}  {}\n", "file", file_width, "output", name_width,
                    SummaryTitles(), "shape"));
  for (const Result& result : results) {
    std::string file = OneLine(result.file);
    for (const Output& output : result.outputs) {
      Print(fmt::format("{:<{}}  {:<{}}  {}  {}\n", file, file_width, OneLine(output.summary.name),
                        name_width, SummaryColumns(output.summary),
                        fmt::join(output.summary.shape, " x ")));
      file = "";
    }
  }
}

/// Summarises all outputs for one image, and writes them into `folder` unless that is null.
void LookAt(const Model& model, const cv::Mat& image, const OutputMap& outputs,
            OutputFolder* folder, Result* result) {
  const OutputShapes shapes = model.engine.output_shapes(image);
  for (std::size_t k = 0; k < model.engine.outputs.size(); ++k) {
    const std::string& key = model.engine.outputs[k];
    const std::vector<float>& values = outputs.at(key);
    Output output{Summarise(model.config.output_names[k], values), ""};
    const auto known = shapes.find(key);
    if (known != shapes.end() && Product(known->second) == values.size()) {
      output.summary.shape = known->second;
    }
    if (folder != nullptr) {
      const std::string stem = fs::path(result->file).stem().string();
      output.saved = folder->Write(stem + "." + FileNamePart(output.summary.name), ".npy",
                                   ToNpy(values, output.summary.shape));
    }
    result->outputs.push_back(std::move(output));
  }
}

Json::Value ToJson(const Result& result) {
  Json::Value image;
  image["file"] = JsonText(result.file);
  if (!result.error.empty()) {
    image["error"] = JsonText(result.error);
    return image;
  }
  for (const Output& output : result.outputs) {
    Json::Value& entry = image["outputs"].append(ToJson(output.summary));
    if (!output.saved.empty()) {
      entry["saved"] = JsonText(output.saved);
    }
  }
  return image;
}

}  // namespace

std::size_t OutputSummary::values() const { return Product(shape); }

OutputSummary Summarise(const std::string& name, const std::vector<float>& values) {
  OutputSummary summary;
  summary.name = name;
  summary.shape = {values.size()};
  double sum = 0;
  std::size_t finite = 0;
  for (const float value : values) {
    if (!std::isfinite(value)) {
      ++summary.not_finite;
      continue;
    }
    summary.least = finite == 0 ? value : std::min<double>(summary.least, value);
    summary.greatest = finite == 0 ? value : std::max<double>(summary.greatest, value);
    sum += value;
    ++finite;
  }
  summary.mean = finite == 0 ? 0 : sum / static_cast<double>(finite);
  return summary;
}

std::string SummaryTitles() {
  return fmt::format("{:>9}  {:>10}  {:>10}  {:>10}  {:>10}", "values", "least", "mean", "greatest",
                     "not finite");
}

std::string SummaryColumns(const OutputSummary& summary) {
  return fmt::format("{:>9}  {:>10.4g}  {:>10.4g}  {:>10.4g}  {:>10}", summary.values(),
                     summary.least, summary.mean, summary.greatest, summary.not_finite);
}

Json::Value ToJson(const OutputSummary& summary) {
  Json::Value entry;
  entry["name"] = JsonText(summary.name);
  entry["values"] = Json::UInt64{summary.values()};
  for (const std::size_t size : summary.shape) {
    entry["shape"].append(Json::UInt64{size});
  }
  entry["least"] = summary.least;
  entry["mean"] = summary.mean;
  entry["greatest"] = summary.greatest;
  entry["not_finite"] = Json::UInt64{summary.not_finite};
  return entry;
}

namespace {

int Outputs(const OutputsOptions& options) {
  const Model model = LoadModel(options.model, options.backend, Use::kAny);
  const Engine& engine = model.engine;
  Console console;
  SayWarning(model, &console);
  const std::vector<std::string> images = ListImages(options.images, &console);
  std::optional<OutputFolder> folder;
  if (!options.save.empty()) {
    try {
      folder.emplace(options.save, images);
    } catch (...) {
      console.Error(options.save, CurrentError());
    }
  }

  std::vector<Result> results;
  for (const std::string& image : images) {
    results.push_back({image, {}, {}});
  }
  const auto fail = [&](Result* result) {
    result->error = CurrentError();
    console.Error(result->file, result->error);
  };
  const std::size_t batch = std::max<std::size_t>(model.config.batch_size, 1);
  for (std::size_t next = 0; next < results.size();) {
    std::vector<cv::Mat> prepared;
    std::vector<Result*> running;
    for (; next < results.size() && running.size() < batch; ++next) {
      try {
        prepared.push_back(Prepare(ReadImage(results[next].file, model.channels), model));
        running.push_back(&results[next]);
      } catch (...) {
        fail(&results[next]);
      }
    }
    std::vector<OutputMap> maps;
    double seconds = 0;
    try {
      maps = RunNetwork(model, prepared, &seconds);
    } catch (...) {
      std::for_each(running.begin(), running.end(), fail);
    }
    for (std::size_t i = 0; i < maps.size(); ++i) {
      try {
        LookAt(model, prepared[i], maps[i], folder ? &*folder : nullptr, running[i]);
      } catch (...) {
        fail(running[i]);
      }
    }
    console.ShowProgress(next, results.size());
  }
  console.ClearProgress();

  if (options.json) {
    Json::Value document;
    document["model"] = JsonText(model.name);
    document["engine"] = engine.name;
    document["device"] = engine.device();
    document["why"] = engine.why;
    document["images"] = Json::arrayValue;
    for (const Result& result : results) {
      document["images"].append(ToJson(result));
    }
    PrintJson(document);
  } else {
    Print(EngineLines(engine) + "\n");
    PrintTable(results);
  }
  return console.any_error() ? kNotAllDone : kDone;
}

}  // namespace

void AddOutputs(CLI::App* program, int* status) {
  const auto options = std::make_shared<OutputsOptions>();
  CLI::App* const command = AddCommand(
      program, "outputs", "Show all that a network gives for images",
      fmt::format("{}\n{}", kHelp, kStatusHelp), status, [options] { return Outputs(*options); });
  AddModel(command, &options->model);
  AddImages(command, &options->images);
  AddBackend(command, &options->backend);
  AddJson(command, &options->json);
  AddText(command, "--save", &options->save, "FOLDER", "Write each output there as .npy");
}

}  // namespace velmora::tool
