// velmora-model: runs image-recognition models from the command line.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <map>
#include <opencv2/core/utils/logger.hpp>

#include "commands.h"
#include "common.h"
#include "model.h"
#include "protobuf_log.h"

namespace {

using namespace velmora::tool;  // NOLINT(google-build-using-namespace)

constexpr char kStatusHelp[] = R"(Exit status:
  0  all was done
  1  something could not be done, as standard error says; the rest was
  2  wrong usage
  3  the model could not be loaded)";

constexpr char kModelHelp[] = R"(MODEL.json describes a model and how images are prepared for it:
  {
    "name": "digits",
    "network": {
      "output_names": ["prob"],
      "enable_dnn": true,
      "dnn_prototxt_path": "digits.prototxt",
      "dnn_caffemodel_path": "digits.caffemodel"
    },
    "image": { "width": 24, "height": 32, "channels": "rgb", "mean": 128, "scale": [0.1, 0.1, 0.2] },
    "labels": ["zero", "one", "two"]
  }
  network  the fields of the library's NetworkConfig; paths start at MODEL.json's folder. The
           answer is the first of output_names: one probability for each label.
  image    the size in pixels, and "rgb", "bgr" or "gray": those of the network's input, or it is
           an error. The network is given (pixel - mean) * scale, by channel in that order, or
           one number for all; without them, mean is 0 and scale is 1.
           "fit" is how an image comes to that size. "stretch", the default: all of it, whatever
           its ratio of width to height. "crop": its middle, "crop_fraction" (0.875) of the largest
           with the size's ratio. "letterbox": all of it with its own ratio, in the middle of
           "letterbox_color" (0; by channel, or one number for all, from 0 to 255).
  labels   may be left out: answers are then numbers from 0.
)";

constexpr char kRunHelp[] = R"(
Without --backend the library chooses: the Inference Engine, else TensorFlow Lite, else OpenCV, by what
the machine supports, the model has a form for and its flags allow ("enable_ie", "enable_tflite",
"enable_dnn"). The line "why" tells why an earlier one was passed over. A --backend is used whatever
the flags say.

A FOLDER stands for the image files in it (not in its subfolders), by name. An image that is named
twice is done once. The time is that of the network alone: reading and preparing an image is not
in it, and an image in a batch has an equal share of the batch's time. An image whose header
claims more than 268435456 pixels (16384 x 16384) is not decoded.

Truth is a CSV file with the header "file,label". In a truth.csv, names are those of images in its
folder. In a --truth FILE, a name with a slash is a path from FILE's folder, and one without a
slash is any image of that name. Images whose truth is unknown are left out of the accuracy.

Values outside 0 to 1 are no probabilities. With labels in MODEL.json they are shown as values, and a
warning says so. Without labels it is an error: the network may be a detector, say, whose values
"velmora-model outputs" shows.

Annotated images are PNG files: the image, enlarged if it is tiny, with its answers below it, in
green when right and red when wrong. They never replace an input image, and are not written through
a link.
)";

constexpr char kRunExamples[] = R"(Examples:
  velmora-model run digits/model.json digits/images
  velmora-model run --json --top 3 digits/model.json a.png b.jpg > answers.json
  velmora-model run --annotate answers --batch 8 digits/model.json digits/images
)";

constexpr char kBenchHelp[] = R"(
Without images, one made-up image of the model's size is used, the same every time; with them,
they are taken in turn. A run is one batch through the network; reading and preparing the images
is not in its time. p90 is the time that 90 % of the runs did not exceed.
"velmora-model run --help" says what MODEL.json holds.

--transcode plays a video evening: 20 inferences a second for SECONDS; as long again while another
process is registered as transcoding with hardware; then until the network is back on the GPU, or
over the quiet minute where there is none; then SECONDS more. It prints for each phase the device and
the latency, how long each move from one device to the other took, and how many requests were lost.
)";

constexpr char kBenchExamples[] = R"(Examples:
  velmora-model bench digits/model.json
  velmora-model bench --json --iterations 1000 --batch 8 digits/model.json digits/images
)";

constexpr char kCompareHelp[] = R"(
Every engine that the model has a form for runs every image, whatever the model's flags say; the
pairs of the Inference Engine for the CPU and for the GPU count as two. For each two engines and each
output that both have, there are printed over all images and values
  absolute   the largest |a - b|
  relative   the largest |a - b| / max(|a|, |b|)
  not finite how many values of either are infinite or no number
  same top   of how many images the best answer is the same (for the answer, the first output)
TensorFlow Lite has one output only, which stands for the first of the model's output_names.
)";

constexpr char kCompareStatusHelp[] = R"(Exit status:
  0  the best answers are the same everywhere and all values are finite
  1  they are not, or something could not be done, as standard error says
  2  wrong usage
  3  the model could not be loaded, or has fewer than two forms that run here)";

constexpr char kOutputsHelp[] = R"(
For networks whose answer is not one probability for each label: detectors, segmenters, embedders.
MODEL.json needs no labels. For each image and each of output_names there are printed how many
values it has, the least, the mean and the greatest of those that are finite, how many are not, and
the shape where the engine tells it (else one dimension).

A saved output is FOLDER/IMAGE.OUTPUT.npy, for NumPy: 32-bit floats in C order. What is not
a letter, digit, ".", "-" or "_" in the output's name becomes "_". A link is not followed, and an
input image not replaced. With a batch_size above 1 the network is given so many images at a time.
)";

constexpr char kCheckHelp[] = R"(
For a model of unknown origin, and before it is used: some files that no look at them tells from
sound ones end the process that runs them, or take all its memory. Every form that the model has is
loaded, and run on zeros and on a made-up image, in a process of its own that is ended when it holds
more memory (resident, with the program itself) or takes longer than it may. There are printed the
device, the time of loading with the first run, that of the second run, the memory then held, the
size of the input as width x height x channels, and the outputs; "difference" is the largest from
the first form's values, as a part of the largest value. Forms agree up to 0.05.
)";

constexpr char kCheckStatusHelp[] = R"(Exit status:
  0  every form loads and runs, and their values are finite and agree
  1  they do not
  2  wrong usage
  3  the description could not be read, or has no form that runs here)";

/// The program tells of a failure in one line of its own; the engines would add theirs.
void SilenceEngines() {
  setenv("HWLOC_HIDE_ERRORS", "2", 0);  // of OpenVINO's threads, where there is no /sys
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  velmora::compat::SilenceProtobuf();
}

/// A whole number in this range. Without its usual description, --help says "N" and no more.
CLI::Validator Between(int least, int most) { return CLI::Range(least, most).description(""); }

int RunProgram(std::vector<std::string> arguments) {
  CLI::App app("Runs image-recognition models.", VELMORA_PROGRAM);
  app.get_formatter()->column_width(24);
  app.require_subcommand(1);
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.set_version_flag("--version", fmt::format("velmora-model {}", VELMORA_VERSION),
                       "Print the version and exit");
  app.footer(fmt::format("\n\"velmora-model COMMAND --help\" tells more.\n\n{}\n{}", kRunExamples,
                         kStatusHelp));

  RunOptions run;
  CLI::App* const run_command = app.add_subcommand("run", "Recognise images");
  const auto add = [](CLI::App* command, const char* name, auto* value, const char* type,
                      const char* help) {
    return command->add_option(name, *value, help)->type_name(type);
  };
  add(run_command, "MODEL.json", &run.model, "", "Description of the model")->required();
  add(run_command, "IMAGE|FOLDER", &run.images, "", "Images to recognise")->required();
  const auto add_backend = [](CLI::App* command, std::optional<Backend>* backend) {
    static const std::map<std::string, Backend> kBackends = {
        {"dnn", Backend::kDnn}, {"ie", Backend::kIe}, {"tflite", Backend::kTfLite}};
    command
        ->add_option(
            "--backend", *backend,
            "Engine: dnn (OpenCV), ie (OpenVINO) or tflite (TensorFlow Lite) [the one that "
            "the library chooses]")
        ->type_name("NAME")
        ->transform(CLI::CheckedTransformer(kBackends).description(""));
  };
  add_backend(run_command, &run.backend);
  add(run_command, "--top", &run.top, "K", "Answers to show for an image, best first [1]")
      ->check(Between(1, 1'000'000));
  add(run_command, "--batch", &run.batch, "N", "Images given to the network at a time [1]")
      ->check(Between(1, 4096));
  run_command->add_flag("--json", run.json, "Print one JSON document instead of a table");
  add(run_command, "--annotate", &run.annotate, "FOLDER", "Write images with their answers there");
  add(run_command, "--truth", &run.truth, "FILE", "Right labels [truth.csv beside the images]");
  run_command->footer(
      fmt::format("{}\n{}\n{}\n{}", kRunHelp, kModelHelp, kRunExamples, kStatusHelp));

  BenchOptions bench;
  CLI::App* const bench_command = app.add_subcommand("bench", "Measure a model's speed");
  add(bench_command, "MODEL.json", &bench.model, "", "Description of the model")->required();
  add(bench_command, "IMAGE|FOLDER", &bench.images, "", "Images to run");
  add_backend(bench_command, &bench.backend);
  add(bench_command, "--transcode", &bench.transcode, "SECONDS",
      "Play a video evening instead: see below")
      ->check(Between(1, 3600));
  add(bench_command, "--iterations", &bench.iterations, "N", "Runs to measure [200]")
      ->check(Between(1, 1'000'000));
  add(bench_command, "--warmup", &bench.warmup, "N", "Runs before those, not measured [20]")
      ->check(Between(0, 1'000'000));
  add(bench_command, "--batch", &bench.batch, "N", "Images in a run [1]")->check(Between(1, 4096));
  bench_command->add_flag("--json", bench.json, "Print one JSON document instead of a table");
  bench_command->footer(fmt::format("{}\n{}\n{}", kBenchHelp, kBenchExamples, kStatusHelp));

  CompareOptions compare;
  CLI::App* const compare_command =
      app.add_subcommand("compare", "Run all engines on the same images and compare them");
  add(compare_command, "MODEL.json", &compare.model, "", "Description of the model")->required();
  add(compare_command, "IMAGE|FOLDER", &compare.images, "", "Images to run")->required();
  compare_command->add_flag("--json", compare.json, "Print one JSON document instead of tables");
  compare_command->footer(fmt::format("{}\n{}", kCompareHelp, kCompareStatusHelp));

  OutputsOptions outputs;
  CLI::App* const outputs_command =
      app.add_subcommand("outputs", "Show all that a network gives for images");
  add(outputs_command, "MODEL.json", &outputs.model, "", "Description of the model")->required();
  add(outputs_command, "IMAGE|FOLDER", &outputs.images, "", "Images to run")->required();
  add_backend(outputs_command, &outputs.backend);
  outputs_command->add_flag("--json", outputs.json, "Print one JSON document instead of a table");
  add(outputs_command, "--save", &outputs.save, "FOLDER", "Write each output there as .npy");
  outputs_command->footer(fmt::format("{}\n{}", kOutputsHelp, kStatusHelp));

  CheckOptions check;
  CLI::App* const check_command =
      app.add_subcommand("check", "Try every form of a model, each in a process of its own");
  add(check_command, "MODEL.json", &check.model, "", "Description of the model")->required();
  add(check_command, "--memory", &check.memory, "MIB", "Memory that a form may hold [2048]")
      ->check(Between(1, 1'000'000));
  add(check_command, "--seconds", &check.seconds, "N", "Time that a form may take [60]")
      ->check(Between(1, 86'400));
  check_command->add_flag("--json", check.json, "Print one JSON document instead of tables");
  check_command->footer(fmt::format("{}\n{}", kCheckHelp, kCheckStatusHelp));

  CheckFormOptions check_form;
  CLI::App* const check_form_command = app.add_subcommand("check-form")->group("");  // for "check"
  check_form_command->add_option("MODEL.json", check_form.model)->required();
  check_form_command->add_option("FORM", check_form.form)->required();
  check_form_command->add_option("PARENT", check_form.parent)->required();

  // The parser takes "[a]" for a list, behind "--" too.
  for (std::string& argument : arguments) {
    if (argument.starts_with('[')) {
      argument.insert(0, "./");
    }
  }
  std::reverse(arguments.begin(), arguments.end());  // as the parser wants them
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    Print(app.help());
    return kDone;
  } catch (const CLI::CallForVersion& version) {
    Print(fmt::format("{}\n", version.what()));
    return kDone;
  } catch (const CLI::ParseError& error) {
    Console().Say(fmt::format("{}; see velmora-model --help", error.what()));
    return kWrongUsage;
  }
  if (run_command->parsed()) {
    return Run(run);
  }
  if (compare_command->parsed()) {
    return Compare(compare);
  }
  if (outputs_command->parsed()) {
    return Outputs(outputs);
  }
  if (check_command->parsed()) {
    return Check(check);
  }
  if (check_form_command->parsed()) {
    return CheckForm(check_form);
  }
  const bool measures_runs = bench_command->count("--iterations") > 0 ||
                             bench_command->count("--warmup") > 0 ||
                             bench_command->count("--batch") > 0 || !bench.images.empty();
  if (bench.transcode > 0 && measures_runs) {
    Console().Say("--transcode takes no images and no --iterations, --warmup or --batch");
    return kWrongUsage;
  }
  return bench.transcode > 0 ? BenchTranscode(bench) : Bench(bench);
}

}  // namespace

int main(int argc, char** argv) {
  static_cast<void>(std::setlocale(
      LC_CTYPE, "C.UTF-8"));  // what OneLine() and its like decode; numbers stay as in C
  SilenceEngines();
  Console console;
  try {
    const int status = RunProgram({argv + 1, argv + argc});
    FlushOutput();
    return status;
  } catch (const ModelError& error) {
    console.Say(error.what());
    return kModelNotLoaded;
  } catch (...) {
    console.Say(CurrentFault());
    return kNotAllDone;
  }
}
