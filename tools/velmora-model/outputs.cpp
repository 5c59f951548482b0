#include <fmt/ranges.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>

#include "batch.h"
#include "commands.h"
#include "common/console.h"
#include "common/text.h"
#include "images.h"
#include "model.h"
#include "summary.h"

namespace velmora::tool {

namespace {

namespace fs = std::filesystem;

constexpr char kHelp[] = R"(For networks whose answer is not one probability for each label, such as
detectors. Prints for each output the number of values, the minimum, mean and
maximum of the finite ones, how many are infinite or NaN, and the shape. A saved
output is FOLDER/IMAGE.OUTPUT.npy, with 32-bit floats for NumPy.
)";

struct OutputsOptions : CommonOptions {
  std::string save;  // folder; empty for none
};

struct Output {
  OutputSummary summary;
  std::string saved;  // path; empty when it is not
};

struct Result {
  ImageRun run;
  std::vector<Output> outputs;
};

/// An output's name as part of a file name.
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
    file_width = std::max(file_width, Width(OneLine(result.run.file)));
    for (const Output& output : result.outputs) {
      name_width = std::max(name_width, Width(OneLine(output.summary.name)));
    }
  }
  Print(fmt::format("{:<{}}  {:<{}}  {}  {}\n", "file", file_width, "output", name_width,
                    SummaryTitles(), "shape"));
  for (const Result& result : results) {
    std::string file = OneLine(result.run.file);
    for (const Output& output : result.outputs) {
      Print(fmt::format("{:<{}}  {:<{}}  {}  {}\n", file, file_width, OneLine(output.summary.name),
                        name_width, SummaryColumns(output.summary),
                        fmt::join(output.summary.shape, " x ")));
      file = "";
    }
  }
}

/// The bytes of a .npy file, version 1.0 (numpy.lib.format): 32-bit floats in C order.
std::string ToNpy(const std::vector<float>& values, const std::vector<std::size_t>& shape) {
  constexpr std::size_t kPreamble = 10;  // magic, version, length of the header
  std::string header = fmt::format("{{'descr': '{}f4', 'fortran_order': False, 'shape': ({}{}), }}",
                                   std::endian::native == std::endian::little ? '<' : '>',
                                   fmt::join(shape, ", "), shape.size() == 1 ? "," : "");
  header.resize((kPreamble + header.size() + 64) / 64 * 64 - kPreamble, ' ');
  header.back() = '\n';
  std::string bytes("\x93NUMPY\x01\x00", 8);
  bytes += static_cast<char>(header.size() % 256);
  bytes += static_cast<char>(header.size() / 256);
  bytes += header;
  return bytes.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

/// Summarises all outputs for one image, and writes them into `folder` unless that is null.
std::vector<Output> SummariseAll(const Model& model, const ImageRun& run, OutputFolder* folder) {
  const OutputShapes shapes = model.engine.output_shapes(run.prepared);
  std::vector<Output> outputs;
  for (std::size_t k = 0; k < model.engine.outputs.size(); ++k) {
    const std::string& key = model.engine.outputs[k];
    const std::vector<float>& values = run.outputs.at(key);
    Output output{Summarise(model.config.output_names[k], values), ""};
    const auto known = shapes.find(key);
    if (known != shapes.end() && Product(known->second) == values.size()) {
      output.summary.shape = known->second;
    }
    if (folder != nullptr) {
      const std::string stem = fs::path(run.file).stem().string();
      output.saved = folder->Write(stem + "." + FileNamePart(output.summary.name), ".npy",
                                   ToNpy(values, output.summary.shape));
    }
    outputs.push_back(std::move(output));
  }
  return outputs;
}

Json::Value ToJson(const Result& result) {
  Json::Value image = ToJson(result.run);
  for (const Output& output : result.outputs) {
    Json::Value& entry = image["outputs"].append(ToJson(output.summary));
    if (!output.saved.empty()) {
      entry["saved"] = JsonText(output.saved);
    }
  }
  return image;
}

int Outputs(const OutputsOptions& options) {
  const Model model = LoadModel(options.model, options.backend, Use::kAny);
  Console console;
  SayWarning(model, &console);
  const std::vector<std::string> images = ListImages(options.images, &console);
  std::optional<OutputFolder> folder = MakeOutputFolder(options.save, images, &console);

  std::vector<Result> results;
  const std::size_t batch = std::max<std::size_t>(model.config.batch_size, 1);
  for (std::span<const std::string> left = images; !left.empty();) {
    const std::span<const std::string> next = left.first(std::min(batch, left.size()));
    left = left.subspan(next.size());
    for (ImageRun& run : RunBatch(model, next, &console)) {
      std::vector<Output> outputs;
      try {
        if (run.error.empty()) {
          outputs = SummariseAll(model, run, folder ? &*folder : nullptr);
        }
      } catch (...) {
        run.Fail(&console);
      }
      run.image = run.prepared = cv::Mat();  // all results are kept
      results.push_back({std::move(run), std::move(outputs)});
    }
    console.ShowProgress(results.size(), images.size());
  }
  console.ClearProgress();

  if (options.json) {
    Json::Value document = ToJson(model);
    document["images"] = Json::arrayValue;
    for (const Result& result : results) {
      document["images"].append(ToJson(result));
    }
    PrintJson(document);
  } else {
    Print(EngineLines(model.engine) + "\n");
    PrintTable(results);
  }
  return console.any_error() ? kNotAllDone : kDone;
}

}  // namespace

void AddOutputs(CLI::App* program, int* status) {
  const auto options = std::make_shared<OutputsOptions>();
  CLI::App* const command = AddCommand(
      program, "outputs", "Show all outputs of a network for images",
      fmt::format("{}\n{}", kHelp, kStatusHelp), status, [options] { return Outputs(*options); });
  AddCommon(command, options.get());
  AddText(command, "--save", &options->save, "FOLDER", "Write each output there as a .npy file");
}

}  // namespace velmora::tool
