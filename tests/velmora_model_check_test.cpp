// velmora-model: which models and engines it takes, and what it says of them.
#include <algorithm>
#include <opencv2/imgcodecs.hpp>

#include "support/velmora_model.h"

namespace velmora::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

const std::string kMachine =
    std::string(kRuns.at("ie") ? "ie " : "") + (kRuns.at("tflite") ? "tflite" : "");
const std::size_t kForms = 1 + 2 * kRuns.at("ie") + kRuns.at("tflite");

TEST_F(VelmoraModelTest, BadInputIsOneLine) {
  const std::string net = "input: 'data' layer { name: 'x' bottom: 'data' top: 'x' type: ";
  const auto truth = [&](const std::string& text) {
    return std::vector<std::string>{"run", kModel, kGood, "--truth", NewFile(".csv", text)};
  };
  const auto load = [&](const std::string& from, const std::string& to,
                        const char* backend = "dnn") {
    return std::vector<std::string>{"bench", Changed(from, to), "--backend", backend};
  };
  const auto caffe = [&](const std::string& network, int width = 24, int height = 32,
                         const std::string& channels_and_more = "\"rgb\"") {
    return std::vector<std::string>{"run", Caffe(network, width, height, channels_and_more),
                                    "dots.png"};
  };
  cv::imwrite("dots.png", cv::Mat(1, 1, CV_8UC3, cv::Scalar::all(9)));
  std::string weights = Text("digits.tflite");
  ++weights[weights.find(std::string("\xff\xff\xff\xff\x80\x04\0\0", 8)) + 4];  // a Reshape's sizes
  Write("reshaped", weights);
  const std::string takes = " takes width 24, height 32, channels 3\n";
  const struct {
    int status;
    std::vector<std::string> arguments;
    std::string error;
  } cases[] = {
      {1, truth("file,label\na.png,1\na.png\n"), ".csv:3: expected a file and a label"},
      {1, truth("file,label\na.png,1\na.png,2\n"), ".csv:3: \"a.png\" is listed twice"},
      {1, truth("file,label\n\na.png,x\n"), ".csv:3: the model has no label \"x\""},
      {1, truth("file,label\na.png,1\n"), ".csv: names none of the images"},
      {1, {"run", kModel, kGood, "--annotate", kModel}, "model.json: Not a directory"},
      {1, {"outputs", kModel, kGood, "--save", kModel}, "model.json: Not a directory"},
      {2, {"run", kModel, kGood, "--top", "0"}, "--top"},
      {2, {"bench", kModel, "--transcode", "1", "--batch", "2"}, "--batch"},
      {3, {"bench", "gone.json"}, "gone.json: No such file"},
      {3, {"bench", Write("a.json", "{\n \"name\": \n")}, "a.json: is not valid JSON: Line 3"},
      {3, load("\"mean", "\"maen"), "image.maen: unknown key"},
      {3, load("\"mean", R"("fit": "box", "mean)"),
       R"(image.fit: expected "stretch" or "crop" or "letterbox")"},
      {3, load("24", "\"24\""), "image.width: expected a positive integer"},
      {3, load("\"prob", "\"gone"), "digits.prototxt: the network does not fit"},
      {3, {"bench", Changed("\"enable_dnn\": true", "\"enable_dnn\": false")}, "enable_dnn"},
      {3, load("digits.caffemodel", "gone.bin"), "gone.bin: No such file"},
      {3, load("digits.prototxt", "a.json"), "a.json, "},
      // What the network answers.
      {1, caffe(kCopy, 1, 1, R"("gray", "scale": 3e38)"), "the network answered inf"},
      {3, caffe(net + "'Sigmoid' }"), "1 x 3 x 32 x 24, and not one probability"},
      {3, caffe(net + "'Power' power_param { shift: 2 } }"),
       "which are no probabilities; \"velmora-model outputs\""},
      // Why an engine refused it.
      {3, caffe("layer { name: 'a' type: 'Convolution' convolution_param { group: 0 } }"),
       "Load dnn network failed: "},
      {3, load("digits.tflite", "reshaped", "tflite"), "(RESHAPE) failed to prepare.\n"},
      {3, load("\"prob", "\"gone", "ie"),
       "input or output with name: 'gone': the outputs are \"features\", \"prob\"\n"},
      // The size of its input, in each of the ways to state it.
      {3, load("24", "48"), "image: width 48, height 32, channels 3, but digits.prototxt" + takes},
      {3, load("24", "48", "ie"), "digits-cpu.xml" + takes},
      {3, load("24", "48", "tflite"), "digits.tflite" + takes},
      {3,
       load("\"input_width\": 0,\n    \"input_height\": 0",
            R"("input_width": 48, "input_height": 32)", "ie"),
       " takes width 48, height 32, channels 3\n"},
      {3,
       caffe("input: 'a' input_shape { dim: 1 } " + kCopy +
             "input_shape { dim: 1 dim: 1 dim: 32 dim: 24 }"),
       " takes width 24, height 32, channels 1\n"},
      {3,
       caffe("layer { name: 'a' type: 'Input' top: 'data' input_param { shape "
             "{ dim: 1 dim: 3 dim: -1 dim: 48 } } } layer { name: 'x' type: 'Split' bottom: 'data' "
             "top: 'x' }"),
       " takes width 48, height any, channels 3\n"},
  };
  for (const auto& [status, arguments, error] : cases) {
    const auto backend = kRuns.find(arguments.back());
    if (backend == kRuns.end() || backend->second) {
      SCOPED_TRACE(error);
      const Finished finished = Run(arguments);
      EXPECT_EQ(status, finished.status);
      EXPECT_THAT(finished.error, HasSubstr(error));
      // TensorFlow Lite's own C++ API reports to standard error besides, the bridge to the log.
      if (VELMORA_TENSORFLOW_LITE_IS_BRIDGE || arguments.back() != "tflite") {
        EXPECT_EQ(1, std::count(finished.error.begin(), finished.error.end(), '\n'))
            << finished.error;
      }
    }
  }
  EXPECT_EQ(1, RunProcess({"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh", VELMORA_MODEL_PROGRAM,
                           "run", kModel, kGood})
                   .status);
}

TEST_F(VelmoraModelTest, TellsWhichEngineAndWhy) {
  const std::string ie_off = Changed("\"enable_ie\": true", "\"enable_ie\": false");
  const std::string no_ie_pair = Changed("digits-cpu.bin", "");
  const std::string no_gpu_pair = Changed("digits-gpu.xml", "");
  const std::string no_ie = "no Inference Engine: ";
  const std::string unable = "this machine does not support it";
  const struct {
    const char* machine;
    std::string model;
    std::string backend;
    std::string why;
  } cases[] = {
      {"", kModel, "dnn", no_ie + unable + "; no TensorFlow Lite: " + unable},
      {"tflite", kModel, "tflite", no_ie + unable},
      {"ie tflite", ie_off, "tflite", no_ie + "network.enable_ie is off"},
      {"ie tflite", no_ie_pair, "tflite", no_ie + "the model has no such form"},
      {"ie", kModel, "ie", "no GPU: this machine has none that the engine can use"},
      {"ie", no_gpu_pair, "ie", "no GPU: the model has no such form"},
  };
  std::map<std::string, std::string> names = {
      {"dnn", "OpenCV dnn"}, {"ie", "Inference Engine"}, {"tflite", "TensorFlow Lite"}};
  for (const auto& [machine, model, backend, why] : cases) {
    if (kRuns.at(backend)) {
      Machine(machine);
      const Json::Value report = RunJson({"run", model, kGood});
      EXPECT_THAT(report["engine"].asString(), testing::StartsWith(names[backend]));
      EXPECT_EQ("CPU", report["device"].asString());
      EXPECT_EQ(why, report["why"].asString());
    }
  }
}

TEST_F(VelmoraModelTest, ComparesAllFormsOfAModel) {
  if (!kRuns.at("tflite")) {
    GTEST_SKIP() << "built without TensorFlow Lite";
  }
  Machine(kMachine.c_str());
  const Finished finished = Run({"compare", kModel, "images", "--json"});
  EXPECT_EQ(0, finished.status) << finished.error;
  EXPECT_EQ(kRuns.at("ie"), finished.error.empty());  // says which forms are left out
  const Json::Value report = Parse(finished.output);
  EXPECT_EQ(kForms, report["engines"].size());
  EXPECT_EQ(kForms * (kForms - 1) / 2, report["differences"].size());
  for (const Json::Value& pair : report["differences"]) {
    EXPECT_LT(pair["absolute"].asDouble(), 2e-3) << pair;  // one form is in half precision
    EXPECT_LT(0, pair["relative"].asDouble()) << pair;
  }

  // Other weights in one form; values in all forms that are not finite.
  std::string weights = Text("digits.caffemodel");
  std::fill(weights.begin() + 10'000, weights.begin() + 20'000, '\xc0');
  EXPECT_EQ(
      1,
      Run({"compare", Changed("digits.caffemodel", Write("altered", weights)), "images"}).status);
  if (kRuns.at("ie")) {  // the other engines make finite values of them, in some versions
    const Finished infinite = Run({"compare", Changed("[0.025390625,", "[3e38,"), kGood, "--json"});
    EXPECT_EQ(1, infinite.status);
    EXPECT_LT(0u, Parse(infinite.output)["differences"][0]["not_finite"].asUInt());
  }

  Machine("");
  EXPECT_EQ(3, Run({"compare", kModel, "images"}).status);  // one form is left
}

TEST_F(VelmoraModelTest, ChecksFormsInProcessesOfTheirOwn) {
  const std::string table = Run({"check", kModel}).output;
  EXPECT_EQ(table.find("device"), table.find("CPU") - table.find("\n") - 1);
  EXPECT_THAT(table, MatchesRegex(".*  24 x 32 x 3\n\n.*  -\n\nthe form loads and runs\n"));

  Machine(kMachine.c_str());
  const Finished all = Run({"check", kModel, "--json"});
  EXPECT_EQ(0, all.status) << all.error;
  const Json::Value forms = Parse(all.output)["forms"];
  ASSERT_EQ(kForms, forms.size());
  for (Json::ArrayIndex k = 0; k < forms.size(); ++k) {
    const Json::Value& form = forms[k];
    EXPECT_FALSE(form.isMember("error")) << form;
    EXPECT_EQ(24, form["input"]["width"].asInt()) << form;
    EXPECT_EQ(10, form["outputs"][0]["values"].asInt()) << form;
    EXPECT_EQ(k > 0, form["outputs"][0]["difference"].asDouble() > 0) << form;
    EXPECT_LT(form["outputs"][0]["difference"].asDouble(), 0.01) << form;
    EXPECT_LT(20'000, form["resident_kib"].asInt()) << form;
  }

  // The first ends the engine: regions whose sample number is negative.
  const struct {
    std::string model;
    std::string memory;
    std::string error;
  } cases[] = {
      {Caffe("input: 'data' "
             "layer { name: 'p' type: 'Power' bottom: 'data' top: 'p' "
             "power_param { scale: 0 shift: -1e8 } }"
             "layer { name: 'r' type: 'Reshape' bottom: 'p' top: 'r' "
             "reshape_param { shape { dim: -1 dim: 5 } } }"
             "layer { name: 'x' type: 'ROIPooling' bottom: 'data' bottom: 'r' top: 'x' "
             "roi_pooling_param { pooled_h: 1 pooled_w: 1 spatial_scale: -2e-8 } }",
             5, 5, "\"gray\""),
       "2048", VELMORA_IS_SANITIZED ? "ended the engine: status" : "ended the engine: SIGSEGV"},
      {kModel, "10", "wanted more than 10 MiB"},
      {Changed("\"9\"", "\"9\", \"10\""), "2048", "has 10 values, and there are 11 labels"},
      {Caffe("layer {", 1, 1, "\"gray\""), "2048", "Failed to parse"},
  };
  for (const auto& [model, memory, error] : cases) {
    SCOPED_TRACE(error);
    const Finished finished = Run({"check", model, "--memory", memory, "--json"});
    EXPECT_EQ(1, finished.status);
    EXPECT_EQ(std::string::npos, finished.error.find('\r'));  // no progress on a pipe
    EXPECT_THAT(Parse(finished.output)["forms"][0]["error"].asString(), HasSubstr(error));
  }
}

TEST_F(VelmoraModelTest, EndsAFormAfterItsTimeAndShowsProgressOnATerminal) {
  // A window that takes any machine minutes to move over the image.
  const std::string model = Caffe(
      "input: 'data' layer { name: 'x' type: 'Pooling' bottom: 'data' top: 'x' "
      "pooling_param { kernel_size: 2001 pad: 1000 stride: 1 } }",
      3000, 3000, "\"gray\"");
  const Finished finished = Run({"check", model, "--seconds", "1", "--json"}, ErrorTo::kTerminal);
  EXPECT_EQ(1, finished.status);
  EXPECT_EQ("took longer than 1 s", Parse(finished.output)["forms"][0]["error"].asString());

  const Finished quick = Run({"run", kModel, "gone"}, ErrorTo::kTerminal);
  if (!finished.on_terminal) {
    GTEST_SKIP() << "no terminal: the progress was not seen";
  }
  EXPECT_EQ("\r[" + std::string(40, '#') + "] 1 of 1\x1b[K\r\x1b[K", finished.error);
  EXPECT_EQ("velmora-model: gone: No such file or directory\r\n", quick.error);
}

TEST_F(VelmoraModelTest, BenchMeasuresWholeBatches) {
  // Other builds than optimised ones warn.
  const Json::Value report = Parse(Run({"bench", kModel, "--json"}).output);
  EXPECT_THAT(report["engine"].asString(), EndsWith(CV_VERSION));
  EXPECT_EQ(200, report["iterations"].asInt());
  const Json::Value& latency = report["latency_ms"];
  const char* const ascending[] = {"p50", "p90", "p95", "p99", "max"};
  for (std::size_t i = 1; i < std::size(ascending); ++i) {
    EXPECT_LE(latency[ascending[i - 1]].asDouble(), latency[ascending[i]].asDouble());
  }
  const Json::Value batches =
      Parse(Run({"bench", kModel, "--iterations", "9", "--batch", "64", "--json"}).output);
  const double mean = batches["latency_ms"]["mean"].asDouble();
  EXPECT_NEAR(64 * 1000, batches["images_per_second"].asDouble() * mean, 1);
  EXPECT_LT(4 * latency["p50"].asDouble(), batches["latency_ms"]["p50"].asDouble());
}

}  // namespace
}  // namespace velmora::test
