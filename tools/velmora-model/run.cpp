#include <fmt/format.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <optional>
#include <utility>

#include "commands.h"
#include "common.h"
#include "images.h"
#include "model.h"
#include "options.h"

namespace velmora::tool {

namespace {

constexpr char kHelp[] =
    R"(A FOLDER stands for the image files in it. Without --backend the library chooses
the engine by what the machine supports, the forms that the model has, and its
flags; the line "why" says why an engine that comes earlier was passed over.
velmora-model(1) describes MODEL.json, truth files and annotated images.
)";

struct RunOptions {
  std::string model;
  std::vector<std::string> images;
  std::optional<Backend> backend;  // none for the factory's choice
  int top = 1;
  int batch = 1;
  bool json = false;
  std::string annotate;  // folder; empty for none
  std::string truth;     // file; empty for the truth.csv beside the images
};

struct Answer {
  std::string label;
  float value = 0;
};

/// What came of one image: answers, or an error instead.
struct Result {
  std::string file;
  cv::Mat image;                // kept for annotating only
  std::vector<Answer> answers;  // best first
  bool probabilities = true;    // that is what their values are
  double milliseconds = 0;
  const std::string* truth = nullptr;
  std::string error;

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

/// Reads, prepares and runs the images of one batch. An image that fails gets an error; the others
/// are still done.
void RunBatch(const Model& model, const RunOptions& options, std::vector<Result>* batch,
              bool* warned, Console* console) {
  std::vector<cv::Mat> prepared;
  std::vector<Result*> running;
  const auto fail = [console](Result* result) {
    result->error = CurrentError();
    console->Error(result->file, result->error);
  };
  for (Result& result : *batch) {
    try {
      const cv::Mat image = ReadImage(result.file, model.channels);
      prepared.push_back(Prepare(image, model));
      running.push_back(&result);
      if (!options.annotate.empty()) {
        result.image = image;
      }
    } catch (...) {
      fail(&result);
    }
  }
  if (running.empty()) {
    return;
  }
  std::vector<std::vector<float>> values;
  double seconds = 0;
  try {
    values = Forward(model, prepared, &seconds);
  } catch (...) {
    std::for_each(running.begin(), running.end(), fail);
    return;
  }
  for (std::size_t i = 0; i < running.size(); ++i) {
    try {
      running[i]->answers = BestAnswers(values[i], model.labels, options.top);
      if (const std::string why = WhyNoProbabilities(model, values[i]); !why.empty()) {
        if (!model.labelled) {
          throw std::runtime_error(why);
        }
        running[i]->probabilities = false;
        if (!std::exchange(*warned, true)) {
          console->Say("warning: " + why + "; they are shown as they are");
        }
      }
      running[i]->milliseconds = seconds * 1000 / static_cast<double>(running.size());
    } catch (...) {
      fail(running[i]);
    }
  }
}

/// The table for people: one row an image, further answers below it. Rows are printed as they come,
/// so the widths are settled beforehand.
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
    std::string file = OneLine(result.file);
    std::string time = fmt::format("{:.3f}", result.milliseconds);
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
  Json::Value image;
  image["file"] = JsonText(result.file);
  if (!result.error.empty()) {
    image["error"] = JsonText(result.error);
    return image;
  }
  for (const Answer& answer : result.answers) {
    Json::Value entry;
    entry["label"] = JsonText(answer.label);
    entry[result.probabilities ? "probability" : "value"] = answer.value;
    image["answers"].append(entry);
  }
  image["time_ms"] = result.milliseconds;
  if (result.truth != nullptr) {
    image["truth"] = JsonText(*result.truth);
    image["correct"] = result.right();
  }
  return image;
}

void Annotate(const Result& result, Annotator* annotator, Console* console) {
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
  try {
    annotator->Write(result.file, result.image, lines, colour);
  } catch (...) {
    console->Error(result.file, CurrentError());
  }
}

int Run(const RunOptions& options) {
  const Model model = LoadModel(options.model, options.backend, Use::kProbabilities);
  Console console;
  SayWarning(model, &console);
  const std::vector<std::string> images = ListImages(options.images, &console);
  const auto truth = FindTruth(images, options.truth, model.labels, &console);
  std::optional<Annotator> annotator;
  if (!options.annotate.empty()) {
    try {
      annotator.emplace(options.annotate, images);
    } catch (...) {
      console.Error(options.annotate, CurrentError());
    }
  }

  std::optional<Table> table;
  Json::Value document;
  document["model"] = JsonText(model.name);
  document["engine"] = model.engine.name;
  document["device"] = model.engine.device();
  document["why"] = model.engine.why;
  document["images"] = Json::arrayValue;
  std::size_t known = 0;
  std::size_t right = 0;
  bool warned = false;

  for (std::size_t next = 0; next < images.size();) {
    std::vector<Result> batch;
    for (; next < images.size() && batch.size() < static_cast<std::size_t>(options.batch); ++next) {
      const auto found = truth.find(images[next]);
      batch.push_back(
          {images[next], {}, {}, true, 0, found != truth.end() ? &found->second : nullptr, ""});
    }
    RunBatch(model, options, &batch, &warned, &console);
    for (const Result& result : batch) {
      if (options.json) {
        document["images"].append(ToJson(result));
      }
      if (!result.error.empty()) {
        continue;
      }
      known += result.truth != nullptr ? 1 : 0;
      right += result.right() ? 1 : 0;
      if (!options.json) {
        console.ClearProgress();
        if (!table) {
          Print(EngineLines(model.engine) + "\n");
          table.emplace(images, model.labels, !truth.empty(), result.probabilities);
        }
        table->Add(result);
      }
      if (annotator) {
        Annotate(result, &*annotator, &console);
      }
    }
    FlushOutput();
    console.ShowProgress(next, images.size());
  }
  console.ClearProgress();

  const double accuracy =
      static_cast<double>(right) / static_cast<double>(std::max<std::size_t>(known, 1));
  if (known > 0) {
    document["accuracy"]["correct"] = Json::UInt64{right};
    document["accuracy"]["counted"] = Json::UInt64{known};
    document["accuracy"]["ratio"] = accuracy;
  }
  if (options.json) {
    PrintJson(document);
  } else if (known > 0) {
    Print(fmt::format("\naccuracy: {} of {} ({:.1f} %)\n", right, known, accuracy * 100));
  }
  return console.any_error() ? kNotAllDone : kDone;
}

}  // namespace

void AddRun(CLI::App* program, int* status) {
  const auto options = std::make_shared<RunOptions>();
  CLI::App* const command = AddCommand(program, "run", "Recognise images",
                                       fmt::format("{}\n{}\n{}", kHelp, kExamples, kStatusHelp),
                                       status, [options] { return Run(*options); });
  AddModel(command, &options->model);
  AddImages(command, &options->images);
  AddBackend(command, &options->backend);
  AddNumber(command, "--top", &options->top, "K", 1, 1'000'000,
            "Answers to show for an image, best first [1]");
  AddNumber(command, "--batch", &options->batch, "N", 1, 4096,
            "Images given to the network at a time [1]");
  AddJson(command, &options->json);
  AddText(command, "--annotate", &options->annotate, "FOLDER",
          "Write images with their answers there");
  AddText(command, "--truth", &options->truth, "FILE",
          "Right labels [truth.csv beside the images]");
}

}  // namespace velmora::tool
