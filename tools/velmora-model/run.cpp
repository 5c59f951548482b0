#include <fmt/format.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

#include "annotate.h"
#include "batch.h"
#include "commands.h"
#include "common/console.h"
#include "common/text.h"
#include "errors.h"
#include "files.h"
#include "images.h"
#include "model.h"
#include "truth.h"

namespace velmora::tool {

namespace {

constexpr char kHelp[] =
    R"(A FOLDER stands for the image files in it. Without --backend, the library
chooses the engine by what the machine supports, which forms the model has, and
its flags; the line "why" says why it passed over an engine that comes earlier.
velmora-model(1) describes MODEL.json, truth files and annotated images.
)";

struct RunOptions : CommonOptions {
  int top = 1;
  int batch = 1;
  std::string annotate;  // folder; empty for none
  std::string truth;     // file; empty for the truth.csv beside the images
};

struct Answer {
  std::string label;
  float value = 0;
};

/// One image and its answers, or an error instead.
struct Result {
  ImageRun run;
  std::vector<Answer> answers;         // best first
  bool probabilities = true;           // whether the values are probabilities
  const std::string* truth = nullptr;  // null when it is not known

  bool right() const { return truth != nullptr && answers[0].label == *truth; }
};

std::vector<Answer> BestAnswers(const std::vector<float>& values,
                                const std::vector<std::string>& labels, int top) {
  for (const float value : values) {
    if (!std::isfinite(value)) {
      throw std::runtime_error(fmt::format("the network answered {}", value));
    }
  }
  std::vector<std::size_t> order(values.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return values[a] > values[b]; });
  order.resize(std::min(order.size(), static_cast<std::size_t>(top)));
  std::vector<Answer> answers;
  for (const std::size_t i : order) {
    answers.push_back({labels[i], values[i]});
  }
  return answers;
}

/// Judges the outputs for one image.
Result TakeResult(const Model& model, int top, const std::map<std::string, std::string>& truths,
                  ImageRun run, bool* warned, Console* console) {
  Result result = {std::move(run), {}, true, nullptr};
  const auto truth = truths.find(result.run.file);
  result.truth = truth != truths.end() ? &truth->second : nullptr;
  if (!result.run.error.empty()) {
    return result;
  }
  try {
    const std::vector<float>& values = AnswerOf(model, result.run.outputs);
    result.answers = BestAnswers(values, model.labels, top);
    const std::string why = WhyNoProbabilities(model, values);
    result.probabilities = why.empty();
    if (!result.probabilities && !model.labelled) {
      throw std::runtime_error(why);
    }
    if (!result.probabilities && !std::exchange(*warned, true)) {
      console->Say("warning: " + why + "; they are shown as they are");
    }
  } catch (...) {
    result.run.Fail(console);
  }
  return result;
}

/// The table for people: a row for each image, with further answers below it. Rows are printed at
/// once, so the widths are known beforehand.
class Table {
 public:
  Table(const std::vector<std::string>& images, const std::vector<std::string>& labels,
        bool has_truth, bool probabilities) {
    for (const std::string& image : images) {
      file_width_ = std::max(file_width_, Width(OneLine(image)));
    }
    for (const std::string& label : labels) {
      label_width_ = std::max(label_width_, Width(OneLine(label)));
    }
    if (const int columns = TerminalWidth(STDOUT_FILENO); columns > 0) {
      const int others = label_width_ + 26 + (has_truth ? label_width_ + 9 : 0);
      file_width_ = std::min(file_width_, std::max(12, columns - others));
    }
    PrintRow("file", "label", probabilities ? "probability" : "value", "time (ms)",
             has_truth ? "truth" : "");
  }

  void Add(const Result& result) const {
    std::string file = OneLine(result.run.file);
    std::string time = fmt::format("{:.3f}", result.run.milliseconds);
    std::string truth = result.truth == nullptr ? "" : OneLine(*result.truth);
    truth += result.truth == nullptr || result.right() ? "" : "  wrong";
    for (const Answer& answer : result.answers) {
      PrintRow(file, OneLine(answer.label), fmt::format("{:.4f}", answer.value), time, truth);
      file = time = truth = "";
    }
  }

 private:
  void PrintRow(const std::string& file, const std::string& label, const std::string& probability,
                const std::string& time, const std::string& truth) const {
    std::string row = fmt::format("{:<{}}  {:<{}}  {:>11}  {:>9}  {}", KeepEnd(file, file_width_),
                                  file_width_, label, label_width_, probability, time, truth);
    row.resize(row.find_last_not_of(' ') + 1);
    Print(row + "\n");
  }

  int file_width_ = 4;
  int label_width_ = 5;
};

Json::Value ToJson(const Result& result) {
  Json::Value image = ToJson(result.run);
  if (!result.run.error.empty()) {
    return image;
  }
  for (const Answer& answer : result.answers) {
    Json::Value entry;
    entry["label"] = JsonText(answer.label);
    entry[result.probabilities ? "probability" : "value"] = answer.value;
    image["answers"].append(entry);
  }
  image["time_ms"] = result.run.milliseconds;
  if (result.truth != nullptr) {
    image["truth"] = JsonText(*result.truth);
    image["correct"] = result.right();
  }
  return image;
}

void Annotate(const Result& result, OutputFolder* folder, Console* console) {
  std::vector<std::string> lines;
  for (const Answer& answer : result.answers) {
    lines.push_back(result.probabilities
                        ? fmt::format("{}  {:.1f} %", OneLine(answer.label), answer.value * 100)
                        : fmt::format("{}  {:.4f}", OneLine(answer.label), answer.value));
  }
  cv::Scalar colour = cv::Scalar::all(255);
  if (result.truth != nullptr) {
    colour = result.right() ? cv::Scalar(90, 220, 90) : cv::Scalar(90, 90, 255);
    if (!result.right()) {
      lines.push_back(fmt::format("truth: {}", OneLine(*result.truth)));
    }
  }
  const std::filesystem::path name = std::filesystem::path(result.run.file).filename();
  const bool is_png = LowerExtension(name) == ".png";
  try {
    folder->Write((is_png ? name.stem() : name).string(),
                  is_png ? name.extension().string() : ".png",
                  AnnotatedPng(result.run.image, lines, colour));
  } catch (...) {
    console->Error(result.run.file, CurrentError());
  }
}

/// How many of the images with a known truth are right.
struct Accuracy {
  std::size_t right = 0;
  std::size_t known = 0;

  void Add(const Result& result) {
    known += result.truth != nullptr ? 1 : 0;
    right += result.right() ? 1 : 0;
  }
  double Ratio() const { return static_cast<double>(right) / static_cast<double>(known); }
};

int Run(const RunOptions& options) {
  const Model model = LoadModel(options.model, options.backend, Use::kProbabilities);
  Console console;
  SayWarning(model, &console);
  const std::vector<std::string> images = ListImages(options.images, &console);
  const auto truth = FindTruth(images, options.truth, model.labels, &console);
  std::optional<OutputFolder> folder = MakeOutputFolder(options.annotate, images, &console);
  std::optional<Table> table;
  Json::Value document = ToJson(model);
  document["images"] = Json::arrayValue;
  Accuracy accuracy;
  bool warned = false;

  const auto batch = static_cast<std::size_t>(options.batch);
  for (std::span<const std::string> left = images; !left.empty();) {
    const std::span<const std::string> next = left.first(std::min(batch, left.size()));
    left = left.subspan(next.size());
    for (ImageRun& run : RunBatch(model, next, &console)) {
      const Result result =
          TakeResult(model, options.top, truth, std::move(run), &warned, &console);
      if (options.json) {
        document["images"].append(ToJson(result));
      }
      if (!result.run.error.empty()) {
        continue;
      }
      accuracy.Add(result);
      if (!options.json) {
        console.ClearProgress();
        if (!table) {
          Print(EngineLines(model.engine) + "\n");
          table.emplace(images, model.labels, !truth.empty(), result.probabilities);
        }
        table->Add(result);
      }
      if (folder) {
        Annotate(result, &*folder, &console);
      }
    }
    FlushOutput();
    console.ShowProgress(images.size() - left.size(), images.size());
  }
  console.ClearProgress();

  if (accuracy.known > 0) {
    document["accuracy"]["correct"] = Json::UInt64{accuracy.right};
    document["accuracy"]["counted"] = Json::UInt64{accuracy.known};
    document["accuracy"]["ratio"] = accuracy.Ratio();
  }
  if (options.json) {
    PrintJson(document);
  } else if (accuracy.known > 0) {
    Print(fmt::format("\naccuracy: {} of {} ({:.1f} %)\n", accuracy.right, accuracy.known,
                      accuracy.Ratio() * 100));
  }
  return console.any_error() ? kNotAllDone : kDone;
}

}  // namespace

void AddRun(CLI::App* program, int* status) {
  const auto options = std::make_shared<RunOptions>();
  CLI::App* const command = AddCommand(program, "run", "Recognise images",
                                       fmt::format("{}\n{}\n{}", kHelp, kExamples, kStatusHelp),
                                       status, [options] { return Run(*options); });
  AddCommon(command, options.get());
  AddNumber(command, "--top", &options->top, "K", 1, 1'000'000,
            "Answers to show for each image, best first [1]");
  AddNumber(command, "--batch", &options->batch, "N", 1, 4096,
            "Images given to the network at a time [1]");
  AddText(command, "--annotate", &options->annotate, "FOLDER",
          "Write the images with their answers there");
  AddText(command, "--truth", &options->truth, "FILE",
          "Right labels [truth.csv beside the images]");
}

}  // namespace velmora::tool
