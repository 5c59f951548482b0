// The command-line program, run as its users run it, on the sample model.

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "support/subprocess.h"

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRunsInferenceEngine = false;  // see no_deepbind.cpp
#else
constexpr bool kRunsInferenceEngine = VELMORA_HAS_INFERENCE_ENGINE;
#endif

const fs::path kModel = fs::path(VELMORA_SAMPLE_MODEL) / "model.json";
const fs::path kImages = fs::path(VELMORA_SAMPLE_MODEL) / "images";

std::string Read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Json::Value Parse(const std::string& text) {
  Json::Value document;
  std::istringstream stream(text);
  std::string faults;
  Json::CharReaderBuilder strict;
  Json::CharReaderBuilder::strictMode(&strict.settings_);
  EXPECT_TRUE(Json::parseFromStream(strict, stream, &document, &faults)) << faults << text;
  return document;
}

class Program : public testing::Test {
 protected:
  Program() {
    fs::create_directories(folder_);
    setenv("LD_LIBRARY_PATH", VELMORA_STAND_INS, 1);
    Machine("");
  }
  ~Program() override { fs::remove_all(folder_); }

  static Finished Run(std::vector<std::string> arguments, ErrorTo error_to = ErrorTo::kPipe,
                      const std::string& output_path = "") {
    arguments.insert(arguments.begin(), VELMORA_MODEL_PROGRAM);
    return RunProcess(arguments, error_to, output_path);
  }

  /// What the machine supports, see platform_stand_in.h.
  static void Machine(const char* engines) { setenv("VELMORA_TEST_PLATFORM", engines, 1); }

  static Json::Value RunJson(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    const Finished finished = Run(arguments);
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.error, "");
    return Parse(finished.output);
  }

  std::string Write(const std::string& name, const std::string& text) const {
    fs::create_directories((folder_ / name).parent_path());
    std::ofstream(folder_ / name, std::ios::binary) << text;
    return folder_ / name;
  }

  /// The sample's MODEL.json with one value replaced: section.key = value.
  std::string ChangedModel(const std::string& section, const std::string& key,
                           const std::string& value) const {
    Json::Value model = Parse(Read(kModel));
    for (const std::string& name : model["network"].getMemberNames()) {
      if (name.ends_with("_path") && !model["network"][name].asString().empty()) {
        model["network"][name] =
            (kModel.parent_path() / model["network"][name].asString()).string();
      }
    }
    (section.empty() ? model[key] : model[section][key]) = Parse("[" + value + "]")[0];
    return Write(section + "-" + key + std::to_string(++changed_models_) + ".json",
                 model.toStyledString());
  }

  const fs::path folder_ =
      fs::temp_directory_path() / ("velmora-model-test-" + std::to_string(getpid()));
  mutable int changed_models_ = 0;
};

TEST_F(Program, AnswersAsTheReferenceInBatchesOrOneByOne) {
  const Json::Value reference = Parse(Read(kModel.parent_path() / "reference.json"));
  std::vector<std::string> backends = {"dnn"};
  if (VELMORA_HAS_TENSORFLOW_LITE) {
    backends.push_back("tflite");
  }
  if (kRunsInferenceEngine) {
    backends.push_back("ie");
  }
  for (std::size_t i = 0; i < 2 * backends.size(); ++i) {
    const std::string batch = i % 2 == 0 ? "1" : "7";
    const Json::Value answer = RunJson(
        {"run", kModel, kImages, "--top", "10", "--batch", batch, "--backend", backends[i / 2]});
    ASSERT_EQ(answer["images"].size(), reference["images"].size());
    ASSERT_GT(answer["images"].size(), 100u);
    EXPECT_EQ(answer["accuracy"]["counted"].asUInt(), answer["images"].size());
    EXPECT_GE(answer["accuracy"]["ratio"].asDouble(), 0.97);
    for (Json::ArrayIndex k = 0; k < answer["images"].size(); ++k) {
      const Json::Value& image = answer["images"][k];
      ASSERT_TRUE(image["file"].asString().ends_with(reference["images"][k].asString()));
      ASSERT_EQ(image["answers"].size(), 10u);
      double above = 1;
      for (const Json::Value& entry : image["answers"]) {
        const double probability = entry["probability"].asDouble();
        EXPECT_NEAR(probability,
                    reference["prob"][k][std::stoi(entry["label"].asString())].asDouble(), 1e-4);
        EXPECT_LE(probability, above);
        above = probability;
      }
    }
  }
}

TEST_F(Program, PreparesImagesAsTheModelSays) {
  const std::string swapped = ChangedModel("image", "channels", "\"bgr\"");
  EXPECT_LT(RunJson({"run", swapped, kImages})["accuracy"]["ratio"].asDouble(), 0.9);

  // A large image is averaged down to the model's size, so that stripes finer than that vanish.
  cv::Mat small;
  cv::Mat large;
  cv::imread(kImages / "0000.png").convertTo(small, -1, 0.8, 10);
  cv::resize(small, large, {}, 4, 4, cv::INTER_NEAREST);
  for (int x = 0; x < large.cols; ++x) {
    large.col(x) += cv::Scalar::all(x % 4 % 3 == 0 ? 10 : -10);
  }
  cv::imwrite(folder_ / "small.png", small);
  cv::imwrite(folder_ / "large.png", large);
  const Json::Value images =
      RunJson({"run", kModel, folder_ / "small.png", folder_ / "large.png"})["images"];
  EXPECT_EQ(images[0]["answers"], images[1]["answers"]);
}

TEST_F(Program, TableShowsAnswersAndWhichAreWrong) {
  const std::string label =
      RunJson({"run", kModel, kImages / "0000.png"})["images"][0]["truth"].asString();
  const std::string wrong = label == "1" ? "2" : "1";
  const std::string quoted = "\"" + (kImages / "0001.png").string() + "\"";
  const std::string truth =
      Write("t.csv", "file,label\r\n0000.png," + label + "\r\n" + quoted + "," + wrong + "\n");
  const Finished finished =
      Run({"run", "--top", "2", "--truth", truth, kModel, kImages / "0000.png",
           kImages / "0001.png", kImages / "0002.png", kImages / "0000.png"});
  EXPECT_EQ(finished.error, "");
  std::vector<std::string> rows;
  std::istringstream lines(finished.output);
  for (std::string line; std::getline(lines, line);) {
    rows.push_back(line);
  }
  ASSERT_EQ(rows.size(), 3 + 1 + 3 * 2 + 2u) << finished.output;
  EXPECT_EQ(rows[0], "engine      OpenCV dnn " CV_VERSION ", CPU");
  EXPECT_TRUE(rows[4].starts_with(kImages.string() + "/0000.png  " + label + " ")) << rows[4];
  EXPECT_TRUE(rows[4].ends_with("  " + label)) << rows[4];
  EXPECT_TRUE(rows[6].ends_with("  " + wrong + "  wrong")) << rows[6];
  EXPECT_EQ(rows.back(), "accuracy: 1 of 2 (50.0 %)");
}

TEST_F(Program, AnnotatesWithoutReplacingAnything) {
  const std::string original = Read(kImages / "0000.png");
  const std::string one = Write("one/a.png", original);
  const std::string two = Write("two/a.png", Read(kImages / "0001.png"));
  ASSERT_EQ(Run({"run", "--annotate", folder_ / "new/answers", kModel, one, two}).status, 0);
  const cv::Mat first = cv::imread(folder_ / "new/answers/a.png");
  const cv::Mat second = cv::imread(folder_ / "new/answers/a-2.png");
  ASSERT_FALSE(first.empty() || second.empty());
  cv::Mat picture = cv::imread(one);
  const int factor = first.cols / picture.cols;
  ASSERT_GT(factor, 1);  // the sample images are too small to be read
  cv::resize(picture, picture, {}, factor, factor, cv::INTER_NEAREST);
  EXPECT_EQ(cv::norm(first.rowRange(0, picture.rows), picture), 0);
  EXPECT_GT(cv::norm(first.rowRange(picture.rows, first.rows)), 0);  // the text
  EXPECT_NE(cv::norm(first, second), 0);

  const Finished refused = Run({"run", "--annotate", folder_ / "one", kModel, one});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.error.find("is an input image"), std::string::npos) << refused.error;
  EXPECT_EQ(Read(one), original);
}

TEST_F(Program, BadInputIsOneLineAndTheOthersAreDone) {
  const std::string good = kImages / "0003.png";
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", cv::Mat(300, 300, CV_8UC3, cv::Scalar(1, 99, 200)), jpeg);
  const std::string cut_jpeg(jpeg.begin(), jpeg.begin() + static_cast<long>(jpeg.size() / 2));
  fs::create_directories(folder_ / "none");
  Write("bad-truth/truth.csv", "file,label\na.png,1\na.png\n");

  struct Case {
    std::vector<std::string> arguments;
    std::string fault;
  };
  const auto expect = [&](int status, std::vector<std::string> arguments, const Case& bad) {
    SCOPED_TRACE(bad.fault);
    arguments.insert(arguments.end(), bad.arguments.begin(), bad.arguments.end());
    const Finished finished = Run(arguments);
    EXPECT_EQ(finished.status, status);
    EXPECT_NE(finished.error.find(bad.fault), std::string::npos) << finished.error;
    EXPECT_EQ(std::count(finished.error.begin(), finished.error.end(), '\n'), 1) << finished.error;
    EXPECT_EQ(finished.output.find(good) != std::string::npos, status == 1) << finished.output;
  };

  const Case not_all_done[] = {
      {{"gone.png"}, "gone.png: No such file"},
      {{Write("text.png", "text")}, "text.png: cannot be decoded"},
      {{Write("empty.png", "")}, "empty.png: the file is empty"},
      {{Write("cut.jpg", cut_jpeg)}, "cut.jpg: the image is cut short"},
      {{Write("cut.png", Read(good).substr(0, 1500)), "--batch", "2"},
       "cut.png: cannot be decoded"},
      {{Write("line\n\x1b\xff.png", "text")}, "line\\n\\x1b\\xff.png: cannot be decoded"},
      {{folder_ / "none"}, "none: no images in this folder"},
      {{Write("bad-truth/a.png", Read(good))}, "truth.csv:3: expected a file and a label"},
      {{"--truth", "gone.csv"}, "gone.csv: No such file"},
      {{"--annotate", kModel}, "model.json: Not a directory"}};
  for (const Case& bad : not_all_done) {
    expect(1, {"run", kModel, good}, bad);
  }
  const Case wrong_usage[] = {
      {{good, "--top", "0"}, "--top"}, {{good, "--tpo", "1"}, "--tpo"}, {{"--json"}, "IMAGE"}};
  for (const Case& bad : wrong_usage) {
    expect(2, {"run", kModel}, bad);
  }
  expect(2, {"bench", kModel}, {{"--transcode", "1", "--batch", "2"}, "--batch"});
  const Case not_loaded[] = {
      {{"gone.json"}, "gone.json: No such file"},
      {{Write("a.json", "{\n \"name\": \n")}, "a.json: is not JSON: Line 3"},
      {{Write("b.json", std::string(2000, '['))}, "b.json: "},
      {{Write("c.json", "[]")}, "c.json: expected an object"},
      {{ChangedModel("image", "widht", "24")}, "image.widht: unknown key"},
      {{ChangedModel("image", "width", "\"24\"")}, "image.width: expected a positive integer"},
      {{ChangedModel("image", "width", "25")}, ".json: the network does not fit"},
      {{ChangedModel("", "image", R"({"width": 24, "height": 32, "channels": "gray"})")},
       "does not fit"},
      {{ChangedModel("image", "mean", "[1, 2]")}, "image.mean: expected a number or a list of 3"},
      {{ChangedModel("", "labels", "[\"a\", \"b\"]")}, "has 10 values, and there are 2 labels"},
      {{ChangedModel("network", "enable_dnn", "false")}, "enable_dnn"},
      {{ChangedModel("network", "output_names", "[\"porb\"]")}, "porb"},
      {{ChangedModel("network", "dnn_caffemodel_path", "\"gone.bin\"")}, "gone.bin: No such file"},
      {{ChangedModel("network", "dnn_caffemodel_path", "\"a.json\"")}, ".json: "},
      {{ChangedModel("network", "dnn_prototxt_path", "\"a.json\"")}, "a.json, "}};
  for (const Case& bad : not_loaded) {
    expect(3, {"bench"}, bad);
  }
  EXPECT_EQ(Run({"run", kModel, good}, ErrorTo::kPipe, "/dev/full").status, 1);
  EXPECT_EQ(Run({"--help"}, ErrorTo::kPipe, "/dev/full").status, 1);
}

TEST_F(Program, TellsWhichEngineAndWhy) {
  if (!VELMORA_HAS_TENSORFLOW_LITE) {
    GTEST_SKIP() << "built without TensorFlow Lite";
  }
  const std::string no_ie = "no Inference Engine: ";
  const std::string no_tflite = "no TensorFlow Lite: ";
  const std::string machine = "this machine does not support it";
  const struct {
    const char* machine;
    std::string model;
    std::vector<std::string> arguments;
    std::string engine;
    std::string why;
  } cases[] = {
      {"", kModel, {}, "OpenCV dnn", no_ie + machine + "; " + no_tflite + machine},
      {"tflite", kModel, {}, "TensorFlow Lite", no_ie + machine},
      {"tflite", kModel, {"--backend", "dnn"}, "OpenCV dnn", ""},
      {"ie tflite",
       ChangedModel("network", "enable_ie", "false"),
       {},
       "TensorFlow Lite",
       no_ie + "network.enable_ie is off"},
      {"ie tflite",
       ChangedModel("network", "ie_cpu_bin_path", "\"\""),
       {},
       "TensorFlow Lite",
       no_ie + "the model has no such form"},
      {"ie",
       kModel,
       {},
       "Inference Engine",
       "no GPU: this machine has none that the engine can use"},
      {"ie",
       ChangedModel("network", "ie_gpu_xml_path", "\"\""),
       {},
       "Inference Engine",
       "no GPU: the model has no such form"},
  };
  for (const auto& [supported, model, options, engine, why] : cases) {
    if (engine == "Inference Engine" && !kRunsInferenceEngine) {
      continue;
    }
    Machine(supported);
    std::vector<std::string> arguments = {"run", model, kImages / "0000.png"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Json::Value report = RunJson(arguments);
    EXPECT_TRUE(report["engine"].asString().starts_with(engine)) << report["engine"];
    EXPECT_EQ(report["device"].asString(), "CPU");
    EXPECT_EQ(report["why"].asString(), why);
  }
}

TEST_F(Program, ComparesAllFormsOfAModel) {
  if (!VELMORA_HAS_TENSORFLOW_LITE) {
    GTEST_SKIP() << "built without TensorFlow Lite";
  }
  Machine(kRunsInferenceEngine ? "ie tflite" : "tflite");
  const std::size_t forms = kRunsInferenceEngine ? 4 : 2;
  const Finished same = Run({"compare", kModel, kImages, "--json"});
  EXPECT_EQ(same.status, 0) << same.error;
  const Json::Value report = Parse(same.output);
  EXPECT_EQ(report["engines"].size(), forms);
  EXPECT_EQ(report["differences"].size(), forms * (forms - 1) / 2);
  for (const Json::Value& pair : report["differences"]) {
    const bool half = pair["engines"].toStyledString().find("ie-gpu") != std::string::npos;
    EXPECT_LT(pair["absolute"].asDouble(), half ? 2e-3 : 1e-4) << pair;
    EXPECT_GT(pair["relative"].asDouble(), 0) << pair;
    EXPECT_EQ(pair["not_finite"].asInt(), 0);
    EXPECT_EQ(pair["same_top"].asUInt(), report["images"].asUInt());
  }

  // Other weights, and weights that make the values before the softmax infinite.
  std::string altered = Read(kModel.parent_path() / "digits.caffemodel");
  std::fill(altered.begin() + 10'000, altered.begin() + 20'000, '\xc0');
  const std::string path = Write("altered", altered);
  Finished other =
      Run({"compare", ChangedModel("network", "dnn_caffemodel_path", "\"" + path + "\""), kImages,
           "--json"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(Parse(other.output)["agree"], false);
  if (kRunsInferenceEngine) {
    std::fill(altered.begin() + 10'000, altered.begin() + 20'000, '\x7f');
    Json::Value model = Parse(Read(ChangedModel("network", "output_names", R"(["features"])")));
    model["network"]["dnn_caffemodel_path"] = Write("infinite", altered);
    model["network"]["tflite_model_path"] = "";  // which has another first output
    model.removeMember("labels");
    other = Run({"compare", Write("features.json", model.toStyledString()), kImages, "--json"});
    EXPECT_EQ(other.status, 1);
    const Json::Value differences = Parse(other.output)["differences"];
    EXPECT_EQ(differences[0]["not_finite"].asUInt(), 0);  // of the pairs of the Inference Engine
    EXPECT_GT(differences[1]["not_finite"].asUInt(), 0);
  }

  Machine("");
  const Finished alone = Run({"compare", kModel, kImages});
  EXPECT_EQ(alone.status, 3);
  EXPECT_NE(alone.error.find("TensorFlow Lite: this machine does not support it"),
            std::string::npos);
}

TEST_F(Program, BenchMeasures) {
  const Finished finished = Run({"bench", kModel, "--iterations", "50", "--batch", "3", "--json"});
  EXPECT_EQ(finished.status, 0);
  const Json::Value report = Parse(finished.output);
  EXPECT_EQ(finished.error.find("not an optimised build") == std::string::npos,
            report["build"]["optimised"].asBool());
  const Json::Value& latency = report["latency_ms"];
  EXPECT_GT(latency["p50"].asDouble(), 0);
  const char* const ascending[] = {"p50", "p90", "p95", "p99", "max"};
  for (std::size_t i = 1; i < std::size(ascending); ++i) {
    EXPECT_LE(latency[ascending[i - 1]].asDouble(), latency[ascending[i]].asDouble());
  }
  EXPECT_NEAR(report["images_per_second"].asDouble() * latency["mean"].asDouble(), 3 * 1000, 1);
  EXPECT_EQ(report["iterations"].asInt(), 50);
  EXPECT_GT(report["machine"]["cores"].asInt(), 0);
  for (const Json::Value* const text : {&report["machine"]["cpu"], &report["machine"]["kernel"],
                                        &report["build"]["type"], &report["build"]["compiler"]}) {
    EXPECT_FALSE(text->asString().empty());
  }
  EXPECT_TRUE(report["engine"].asString().ends_with(CV_VERSION)) << report["engine"];
}

TEST_F(Program, ShowsProgressOnATerminalOnly) {
  const std::vector<std::string> arguments = {"bench", kModel, "--iterations", "20000"};
  const std::string shown = Run(arguments, ErrorTo::kTerminal).error;
  EXPECT_NE(shown.find("\r[##"), std::string::npos) << shown;
  EXPECT_TRUE(shown.ends_with("\r\x1b[K")) << shown;  // and takes it away
  EXPECT_EQ(Run(arguments).error.find('\r'), std::string::npos);
}

}  // namespace
