// The command-line program, run as its users run it, on the sample model.

#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <sstream>

#include "support/subprocess.h"

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr bool kRunsInferenceEngine =
    VELMORA_HAS_INFERENCE_ENGINE && !kSanitized;  // see no_deepbind.cpp

const fs::path kSample = VELMORA_SAMPLE_MODEL;
const fs::path kModel = kSample / "model.json";
const fs::path kImages = kSample / "images";

std::string Read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Json::Value Parse(const std::string& text) {
  Json::Value document;
  std::istringstream(text) >> document;
  return document;
}

class Program : public testing::Test {
 protected:
  Program() {
    fs::create_directories(folder_ / "none");
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
  static void Machine(const std::string& engines) {
    setenv("VELMORA_TEST_PLATFORM", engines.c_str(), 1);
  }

  static Json::Value RunJson(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    const Finished finished = Run(arguments);
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.error, "");
    return Parse(finished.output);
  }

  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name, std::ios::binary) << text;
    return folder_ / name;
  }

  /// The sample's MODEL.json with one place changed. Its files are the sample's.
  std::string Changed(const std::string& from, const std::string& to) {
    std::string text = Read(kModel);
    text.replace(text.find(from), from.size(), to);
    text = std::regex_replace(text, std::regex("\"(digits[-.])"), "\"" + kSample.string() + "/$1");
    return Write("model-" + std::to_string(++changed_models_) + ".json", text);
  }

  /// A MODEL.json of the sample's Caffe form, without labels.
  std::string Unlabelled(const std::string& output) {
    return Write(output + ".json", R"({"network": {"enable_dnn": true, "dnn_binary_path": ")" +
                                       (kSample / "digits-binary.caffemodel").string() +
                                       R"(", "output_names": [")" + output +
                                       R"("]}, "image": {"width": 24, "height": 32, )" +
                                       R"("channels": "rgb"}})");
  }

  const fs::path folder_ =
      fs::temp_directory_path() / ("velmora-model-test-" + std::to_string(getpid()));
  int changed_models_ = 0;
};

TEST_F(Program, AnswersAsTheReferenceInBatchesOrOneByOne) {
  const Json::Value reference = Parse(Read(kSample / "reference.json"));
  for (const char* const batch : {"1", "7"}) {
    const Json::Value answer = RunJson({"run", kModel, kImages, "--top", "10", "--batch", batch});
    ASSERT_EQ(answer["images"].size(), reference["images"].size());
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
  const Json::Value swapped = RunJson({"run", Changed("\"rgb\"", "\"bgr\""), kImages});
  EXPECT_LT(swapped["accuracy"]["ratio"].asDouble(), 0.9);

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
  const auto answers = [&](const fs::path& model, const char* image) {
    return RunJson({"run", "--top", "10", model, folder_ / image})["images"][0]["answers"];
  };
  EXPECT_EQ(answers(kModel, "large.png"), answers(kModel, "small.png"));

  // What "crop" leaves of an image, and what "letterbox" makes of one.
  cv::Mat framed;
  cv::copyMakeBorder(small, framed, 64, 64, 100, 100, cv::BORDER_CONSTANT, {0, 0, 255});
  cv::imwrite(folder_ / "framed.png", framed);
  const std::string crop = R"("fit": "crop", "crop_fraction": 0.5, )";
  EXPECT_EQ(answers(Changed("\"mean", crop + "\"mean"), "framed.png"),
            answers(kModel, "small.png"));
  cv::imwrite(folder_ / "low.png", large.rowRange(0, 252));
  cv::resize(large.rowRange(0, 252), small, {24, 16}, 0, 0, cv::INTER_AREA);
  cv::copyMakeBorder(small, framed, 8, 8, 0, 0, cv::BORDER_CONSTANT, {3, 2, 1});
  cv::imwrite(folder_ / "framed.png", framed);
  const std::string letterbox = R"("fit": "letterbox", "letterbox_color": [1, 2, 3], )";
  EXPECT_EQ(answers(Changed("\"mean", letterbox + "\"mean"), "low.png"),
            answers(kModel, "framed.png"));
}

TEST_F(Program, TableShowsAnswersAndWhichAreWrong) {
  const std::string truth =
      Write("t.csv", "file,label\r\n0000.png,6\r\n\"" + (kImages / "0001.png").string() + "\",9\n");
  const Finished finished =
      Run({"run", "--top", "2", "--truth", truth, kModel, kImages / "0000.png",
           kImages / "0001.png", kImages / "0002.png", kImages / "0000.png"});
  EXPECT_EQ(finished.error, "");
  EXPECT_EQ(std::count(finished.output.begin(), finished.output.end(), '\n'), 3 + 1 + 3 * 2 + 2);
  EXPECT_THAT(finished.output,
              testing::MatchesRegex(".*/0000\\.png  6 .*  6\n.*/0001\\.png  3 .*  9  wrong\n"
                                    ".*\naccuracy: 1 of 2 \\(50\\.0 %\\)\n"));
}

TEST_F(Program, AnnotatesWithoutReplacingAnything) {
  const std::string original = Read(kImages / "0000.png");
  const std::string input = Write("0000.png", original);
  ASSERT_EQ(Run({"run", "--annotate", folder_ / "new/answers", kModel, kImages, input}).status, 0);
  cv::Mat picture = cv::imread(kImages / "0001.png");
  const cv::Mat annotated = cv::imread(folder_ / "new/answers/0001.png");
  const int factor = annotated.cols / picture.cols;
  ASSERT_GT(factor, 1);  // the sample images are too small to be read
  cv::resize(picture, picture, {}, factor, factor, cv::INTER_NEAREST);
  EXPECT_EQ(cv::norm(annotated.rowRange(0, picture.rows), picture), 0);
  EXPECT_GT(cv::norm(annotated.rowRange(picture.rows, annotated.rows)), 0);  // the text
  EXPECT_TRUE(fs::exists(folder_ / "new/answers/0000-2.png"));  // of two images of a name

  const Finished refused = Run({"run", "--annotate", folder_, kModel, input});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.error.find("is an input image"), std::string::npos) << refused.error;
  EXPECT_EQ(Read(input), original);
}

TEST_F(Program, BadInputIsOneLineAndTheOthersAreDone) {
  const std::string good = kImages / "0003.png";
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", cv::Mat(300, 300, CV_8UC3, cv::Scalar(1, 99, 200)), jpeg);
  jpeg.resize(jpeg.size() / 2);
  std::vector<unsigned char> huge;
  cv::imencode(".bmp", cv::Mat(1, 1, CV_8UC3), huge);
  huge[19] = huge[23] = 0x60;  // width and height, of which these are the second bytes
  const auto run = [&](const std::string& bad, const std::string& more = "--batch=2") {
    return std::vector<std::string>{"run", kModel, good, bad, more};
  };
  const auto load = [&](const std::string& from, const std::string& to) {
    return std::vector<std::string>{"bench", Changed(from, to)};
  };
  const struct {
    int status;
    std::vector<std::string> arguments;
    std::string fault;
  } cases[] = {
      {1, run("gone.png"), "gone.png: No such file"},
      {1, run(Write("empty.png", "")), "empty.png: the file is empty"},
      {1, run(Write("cut.jpg", {jpeg.begin(), jpeg.end()})), "cut.jpg: the image is cut short"},
      {1, run(Write("cut.png", Read(good).substr(0, 1500))), "cut.png: cannot be decoded"},
      {1, run(Write("huge.bmp", {huge.begin(), huge.end()})), "24577 x 24577 pixels are more than"},
      {1, run(Write("\n\x1b\xff\u202E e\u0301.png", "text")),
       "\\n\\x1b\\xff\\xe2\\x80\\xae e\u0301.png: cannot be decoded"},
      {1, run(folder_ / "none"), "none: no images in this folder"},
      {1, run("--truth", Write("t.csv", "file,label\na.png,1\na.png\n")),
       "t.csv:3: expected a file"},
      {1, run("--annotate", kModel), "model.json: Not a directory"},
      {2, run("--top", "0"), "--top"},
      {2, {"bench", kModel, "--transcode", "1", "--batch", "2"}, "--batch"},
      {3, {"bench", "gone.json"}, "gone.json: No such file"},
      {3, {"bench", Write("a.json", "{\n \"name\": \n")}, "a.json: is not JSON: Line 3"},
      {3, load("\"mean", "\"maen"), "image.maen: unknown key"},
      {3, load("\"mean", "\"fit\": \"box\", \"mean"),
       R"(image.fit: expected "stretch" or "crop" or "letterbox")"},
      {3, load("\"mean", "\"crop_fraction\": 1, \"mean"),
       R"(image.crop_fraction: expected "fit": "crop" beside it)"},
      {3, load("24", "\"24\""), "image.width: expected a positive integer"},
      {3, load("\"prob", "\"gone"), "digits.prototxt: the network does not fit"},
      {3, load("\"9\"", "\"9\", \"10\""), "has 10 values, and there are 11 labels"},
      {3,
       {"run", Unlabelled("score"), good},
       "which are no probabilities; \"velmora-model outputs\""},
      {1, {"outputs", kModel, good, "--save", kModel}, "model.json: Not a directory"},
      {3, load("\"enable_dnn\": true", "\"enable_dnn\": false"), "enable_dnn"},
      {3, load("digits.caffemodel", "gone.bin"), "gone.bin: No such file"},
      {3, load("digits.prototxt", "a.json"), "a.json, "},
  };
  for (const auto& [status, arguments, fault] : cases) {
    SCOPED_TRACE(fault);
    const Finished finished = Run(arguments);
    EXPECT_EQ(finished.status, status);
    EXPECT_NE(finished.error.find(fault), std::string::npos) << finished.error;
    EXPECT_EQ(std::count(finished.error.begin(), finished.error.end(), '\n'), 1) << finished.error;
    EXPECT_EQ(finished.output.find(good) != std::string::npos, status == 1) << finished.output;
  }
  EXPECT_EQ(Run({"run", kModel, good}, ErrorTo::kPipe, "/dev/full").status, 1);
}

TEST_F(Program, SaysWhyAModelIsRefused) {
  // A network that takes images of any size, with its input in each of the ways to state it.
  const auto caffe = [&](const std::string& input) {
    return Changed("digits.prototxt",
                   Write("caffe-" + std::to_string(input.size()),
                         input + " layer { name: 'prob' type: 'Pooling' bottom: 'data' top: 'prob' "
                                 "pooling_param { global_pooling: true } }"));
  };
  const std::string wide = Changed("24", "48");
  const std::string binary =
      Write("binary.json", R"({"network": {"output_names": ["prob"], "dnn_binary_path": ")" +
                               (kSample / "digits-binary.caffemodel").string() +
                               R"("}, "image": {"width": 32, "height": 24, "channels": "rgb"}})");
  std::string weights = Read(kSample / "digits.tflite");
  ++weights[weights.find(std::string("\xff\xff\xff\xff\x80\x04\0\0", 8)) + 4];  // a Reshape's sizes
  const std::string reshaped = Changed("digits.tflite", Write("reshaped", weights));
  const struct {
    std::string backend;
    std::string model;
    std::string fault;
  } cases[] = {
      {"dnn", caffe("layer { name: 'a' type: 'Convolution' convolution_param { group: 0 } }"),
       "Load dnn network failed: "},
      {"tflite", reshaped, "(RESHAPE) failed to prepare"},
      {"dnn", wide, "image: width 48, height 32, channels 3, but "},
      {"dnn", wide, "digits.prototxt takes width 24, height 32, channels 3\n"},
      {"dnn", binary, "digits-binary.caffemodel takes width 24, height 32, channels 3\n"},
      {"dnn", caffe("input: 'data' input_dim: 1 input_dim: 3 input_dim: 64 input_dim: 24"),
       "takes width 24, height 64, channels 3\n"},
      {"dnn",
       caffe("input: 'a' input: 'data' input_shape { dim: 1 } "
             "input_shape { dim: 1 dim: 1 dim: 32 dim: 24 }"),
       "takes width 24, height 32, channels 1\n"},
      {"dnn",
       caffe("layer { name: 'a' type: 'Input' top: 'data' "
             "input_param { shape { dim: 1 dim: 3 dim: -1 dim: 48 } } }"),
       "takes width 48, height any, channels 3\n"},
      {"ie", Changed("\"prob", "\"gone"),
       "input or output with name: 'gone': the outputs are \"features\", \"prob\"\n"},
      {"ie", wide, "digits-cpu.xml takes width 24, height 32, channels 3\n"},
      {"ie",
       Changed("\"input_width\": 0,\n    \"input_height\": 0",
               "\"input_width\": 48, \"input_height\": 32"),
       "takes width 48, height 32, channels 3\n"},
      {"tflite", wide, "digits.tflite takes width 24, height 32, channels 3\n"},
  };
  for (const auto& [backend, model, fault] : cases) {
    if ((backend == "ie" && !kRunsInferenceEngine) ||
        (backend == "tflite" && !VELMORA_HAS_TENSORFLOW_LITE)) {
      continue;
    }
    SCOPED_TRACE(fault);
    const Finished finished = Run({"bench", model, "--backend", backend});
    EXPECT_EQ(finished.status, 3);
    EXPECT_THAT(finished.error, testing::HasSubstr(fault));
  }
}

TEST_F(Program, ShowsAndSavesOutputsAsTheyAre) {
  const Json::Value reference = Parse(Read(kSample / "reference.json"))["prob"];
  const auto save = [&](const std::string& backend) {
    return Run({"outputs", kModel, kImages / "0000.png", kImages / "0001.png", "--backend", backend,
                "--save", folder_ / backend, "--json"});
  };
  for (const std::string backend : {"dnn", "ie", "tflite"}) {
    if ((backend == "ie" && !kRunsInferenceEngine) ||
        (backend == "tflite" && !VELMORA_HAS_TENSORFLOW_LITE)) {
      continue;
    }
    SCOPED_TRACE(backend);
    const Json::Value image = Parse(save(backend).output)["images"][1];
    const std::string npy = Read(folder_ / backend / "0001.prob.npy");
    EXPECT_EQ(image["outputs"][0]["saved"].asString(), folder_ / backend / "0001.prob.npy");
    ASSERT_THAT(npy, testing::StartsWith(std::string("\x93NUMPY\x01\0\x76\0{'descr': '<f4', "
                                                     "'fortran_order': False, "
                                                     "'shape': (1, 10), }",
                                                     69)));
    ASSERT_EQ(npy.size(), 128u + 10 * sizeof(float));
    float sum = 0;
    float greatest = 0;
    for (Json::ArrayIndex k = 0; k < 10; ++k) {
      float value = 0;
      npy.copy(reinterpret_cast<char*>(&value), sizeof value, 128 + k * sizeof value);
      EXPECT_NEAR(value, reference[1][k].asDouble(), 1e-4);
      sum += value;
      greatest = std::max(greatest, value);
    }
    EXPECT_FLOAT_EQ(image["outputs"][0]["mean"].asFloat(), sum / 10);
    EXPECT_FLOAT_EQ(image["outputs"][0]["greatest"].asFloat(), greatest);
  }

  // Nothing is written through a link, and a FIFO is not waited for.
  const std::string other = Write("other", "as it was");
  fs::remove(folder_ / "dnn/0000.prob.npy");
  fs::create_symlink(other, folder_ / "dnn/0000.prob.npy");
  fs::remove(folder_ / "dnn/0001.prob.npy");
  ASSERT_EQ(mkfifo((folder_ / "dnn/0001.prob.npy").c_str(), 0600), 0);
  const Finished refused = save("dnn");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.error,
              testing::ContainsRegex("0000.prob.npy: is a link\n.*1.prob.npy: is not"));
  EXPECT_EQ(Read(other), "as it was");
}

TEST_F(Program, ShowsValuesThatAreNoProbabilitiesAsValues) {
  const Finished finished = Run({"run", Changed("\"prob\"", "\"score\""), kImages, "--json"});
  EXPECT_EQ(finished.status, 0);
  EXPECT_EQ(std::count(finished.error.begin(), finished.error.end(), '\n'), 1) << finished.error;
  const Json::Value report = Parse(finished.output);
  EXPECT_GT(report["images"][0]["answers"][0]["value"].asDouble(), 1);
  EXPECT_GE(report["accuracy"]["ratio"].asDouble(), 0.97);
}

TEST_F(Program, TellsWhichEngineAndWhy) {
  const std::string ie_off = Changed("\"enable_ie\": true", "\"enable_ie\": false");
  const std::string no_ie_pair = Changed("digits-cpu.bin", "");
  const std::string no_gpu_pair = Changed("digits-gpu.xml", "");
  const std::string no_ie = "no Inference Engine: ";
  const std::string unable = "this machine does not support it";
  const struct {
    std::string machine;
    std::string model;
    std::string engine;
    std::string why;
  } cases[] = {
      {"", kModel, "OpenCV", no_ie + unable + "; no TensorFlow Lite: " + unable},
      {"tflite", kModel, "TensorFlow", no_ie + unable},
      {"ie tflite", ie_off, "TensorFlow", no_ie + "network.enable_ie is off"},
      {"ie tflite", no_ie_pair, "TensorFlow", no_ie + "the model has no such form"},
      {"ie", kModel, "Inference", "no GPU: this machine has none that the engine can use"},
      {"ie", no_gpu_pair, "Inference", "no GPU: the model has no such form"},
  };
  for (const auto& [machine, model, engine, why] : cases) {
    if ((engine == "Inference" && !kRunsInferenceEngine) ||
        (engine == "TensorFlow" && !VELMORA_HAS_TENSORFLOW_LITE)) {
      continue;
    }
    Machine(machine);
    const Json::Value report = RunJson({"run", model, kImages / "0000.png"});
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
  const Finished finished = Run({"compare", kModel, kImages, "--json"});
  EXPECT_EQ(finished.status, 0) << finished.error;
  EXPECT_EQ(finished.error.empty(), kRunsInferenceEngine);  // says which forms are left out
  const Json::Value report = Parse(finished.output);
  EXPECT_EQ(report["engines"].size(), forms);
  EXPECT_EQ(report["differences"].size(), forms * (forms - 1) / 2);
  for (const Json::Value& pair : report["differences"]) {
    EXPECT_LT(pair["absolute"].asDouble(), 2e-3) << pair;  // one form is in half precision
    EXPECT_GT(pair["relative"].asDouble(), 0) << pair;
  }

  // Other weights in one form; values in all forms that are not finite.
  std::string weights = Read(kSample / "digits.caffemodel");
  std::fill(weights.begin() + 10'000, weights.begin() + 20'000, '\xc0');
  Write("altered", weights);
  const auto disagreement = [&](const std::string& model) {
    const Finished disagreeing = Run({"compare", model, kImages, "--json"});
    EXPECT_EQ(disagreeing.status, 1);
    return Parse(disagreeing.output)["differences"][0];
  };
  disagreement(Changed("digits.caffemodel", "altered"));
  if (kRunsInferenceEngine) {  // the other engines make finite values of them, in some versions
    EXPECT_GT(disagreement(Changed("[0.025390625,", "[3e38,"))["not_finite"].asUInt(), 0u);
  }

  Machine("");
  EXPECT_EQ(Run({"compare", kModel, kImages}).status, 3);  // one form is left
}

TEST_F(Program, ChecksFormsInProcessesOfTheirOwn) {
  Machine(kRunsInferenceEngine ? "ie tflite" : "tflite");
  const Finished all = Run({"check", kModel, "--json"});
  EXPECT_EQ(all.status, 0) << all.error;
  const Json::Value report = Parse(all.output);
  EXPECT_TRUE(report["passed"].asBool());
  ASSERT_EQ(report["forms"].size(), 1u + VELMORA_HAS_TENSORFLOW_LITE + 2 * kRunsInferenceEngine);
  for (const Json::Value& form : report["forms"]) {
    EXPECT_FALSE(form.isMember("error")) << form;
    EXPECT_EQ(form["input"]["width"].asInt(), 24) << form;
    EXPECT_EQ(form["outputs"][0]["values"].asInt(), 10) << form;
    EXPECT_LT(form["outputs"][0]["difference"].asDouble(), 0.01) << form;
    EXPECT_GT(form["resident_kib"].asInt(), 20'000) << form;
  }

  // Networks that an engine does not survive: of regions with a negative sample number, of channels
  // that are eight times as many after each layer, and of a window that is larger than the image.
  const std::string weights = Write("weights", {'\x0a', '\x01', 'x'});
  const std::string regions =
      "layer { name: 'p' type: 'Power' bottom: 'data' top: 'p' power_param { scale: 0 shift: -1e8 "
      "} }"
      "layer { name: 'r' type: 'Reshape' bottom: 'p' top: 'r' reshape_param { shape { dim: -1 dim: "
      "5 } } }"
      "layer { name: 'x' type: 'ROIPooling' bottom: 'data' bottom: 'r' top: 'x' "
      "roi_pooling_param { pooled_h: 1 pooled_w: 1 spatial_scale: -2e-8 } }";
  std::string channels = "layer { name: 'x0' type: 'Split' bottom: 'data' top: 'x0' }";
  for (int i = 1; i < 9; ++i) {
    std::string eight;
    for (int k = 0; k < 8; ++k) {
      eight += " bottom: 'x" + std::to_string(i - 1) + "'";
    }
    channels += "layer { name: '" + std::string(i < 8 ? "x" + std::to_string(i) : "x") +
                "' type: 'Concat' top: 'x" + std::to_string(i) + "'" + eight + " }";
  }
  const std::string window =
      "layer { name: 'x' type: 'Pooling' bottom: 'data' top: 'x' "
      "pooling_param { kernel_size: 2001 pad: 1000 stride: 1 } }";
  const struct {
    std::string network;
    int size;
    std::string seconds;
    std::string fault;
  } cases[] = {
      {regions, 5, "60", kSanitized ? "ended the engine: status" : "ended the engine: SIGSEGV"},
      {channels, 5, "60", "wanted more than 300 MiB"},
      {window, 3000, "1", "took longer than 1 s"},
      {"layer {", 5, "60", "Failed to parse"}};
  for (const auto& [network, size, seconds, fault] : cases) {
    Write("x.prototxt", "input: 'data' " + network);
    const std::string pixels = std::to_string(size);
    const std::string model =
        Write("x.json", R"({"network": {"output_names": ["x"], "dnn_prototxt_path": "x.prototxt", )"
                        R"("dnn_caffemodel_path": "weights"}, "image": {"width": )" +
                            pixels + R"(, "height": )" + pixels + R"(, "channels": "gray"}})");
    const Finished finished =
        Run({"check", model, "--memory", "300", "--seconds", seconds, "--json"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.error, "");
    EXPECT_THAT(Parse(finished.output)["forms"][0]["error"].asString(), testing::HasSubstr(fault));
  }
}

TEST_F(Program, BenchMeasuresAndShowsProgressOnATerminalOnly) {
  // Long enough, on any machine, for the bar to appear.
  std::vector<std::string> arguments = {"bench",   kModel, "--iterations", "10000",
                                        "--batch", "3",    "--json"};
  const Finished finished = Run(arguments, ErrorTo::kTerminal);
  EXPECT_NE(finished.error.find("\r[##"), std::string::npos) << finished.error;
  EXPECT_TRUE(finished.error.ends_with("\r\x1b[K")) << finished.error;  // and takes it away
  arguments[3] = "5000";
  EXPECT_EQ(Run(arguments).error.find('\r'), std::string::npos);

  const Json::Value report = Parse(finished.output);
  EXPECT_TRUE(report["engine"].asString().ends_with(CV_VERSION)) << report["engine"];
  const Json::Value& latency = report["latency_ms"];
  const char* const ascending[] = {"p50", "p90", "p95", "p99", "max"};
  for (std::size_t i = 1; i < std::size(ascending); ++i) {
    EXPECT_LE(latency[ascending[i - 1]].asDouble(), latency[ascending[i]].asDouble());
  }
  EXPECT_NEAR(report["images_per_second"].asDouble() * latency["mean"].asDouble(), 3 * 1000, 1);
}

}  // namespace
