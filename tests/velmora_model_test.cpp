// velmora-model: images and what a network answers.
#include "support/velmora_model.h"

#include <sys/stat.h>

#include <algorithm>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace velmora::test {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST_F(VelmoraModelTest, AnswersAsTheReferenceInBatchesOrOneByOne) {
  const Json::Value reference = Parse(Text("reference.json"));
  for (const char* const batch : {"1", "7"}) {
    const Json::Value answer = RunJson({"run", kModel, "images", "--top", "10", "--batch", batch});
    ASSERT_EQ(reference["images"].size(), answer["images"].size());
    EXPECT_EQ(answer["images"].size(), answer["accuracy"]["counted"].asUInt());
    EXPECT_GE(answer["accuracy"]["ratio"].asDouble(), 0.97);
    for (Json::ArrayIndex k = 0; k < answer["images"].size(); ++k) {
      const Json::Value& image = answer["images"][k];
      ASSERT_THAT(image["file"].asString(), EndsWith(reference["images"][k].asString()));
      ASSERT_EQ(10u, image["answers"].size());
      double above = 1;
      for (const Json::Value& entry : image["answers"]) {
        const Json::Value& expected = reference["prob"][k][std::stoi(entry["label"].asString())];
        EXPECT_NEAR(expected.asDouble(), entry["probability"].asDouble(), 1e-4);
        EXPECT_LE(entry["probability"].asDouble(), above);
        above = entry["probability"].asDouble();
      }
    }
  }
}

TEST_F(VelmoraModelTest, PreparesImagesAsTheModelSays) {
  cv::imwrite("color.png", cv::Mat_<cv::Vec3b>({1, 2}, {{1, 2, 3}, {4, 5, 6}}));
  cv::imwrite("gray.png", cv::Mat_<uchar>({2, 4}, {10, 20, 30, 40, 50, 60, 70, 80}));
  const struct {
    std::string image;
    int width;
    int height;
    std::string preparation;
    std::vector<float> prepared;
  } cases[] = {
      {"color", 2, 1, R"("rgb")", {3, 6, 2, 5, 1, 4}},
      {"color", 2, 1, R"("bgr", "mean": [0, 2, 3], "scale": [1, 9, 2])", {1, 4, 0, 27, 0, 6}},
      {"gray", 2, 1, R"("gray", "mean": [5])", {30, 50}},  // averages
      {"gray", 8, 1, R"("gray")", {30, 33, 38, 43, 48, 53, 58, 60}},
      {"gray", 1, 1, R"("gray", "fit": "crop")", {45}},
      {"gray", 1, 1, R"("gray", "fit": "crop", "crop_fraction": 0.5)", {20}},
      {"gray", 2, 3, R"("gray", "fit": "letterbox", "mean": 5)", {-5, -5, 30, 50, -5, -5}},
      {"gray", 2, 2, R"("gray", "fit": "letterbox", "letterbox_color": 9)", {35, 55, 9, 9}},
  };
  for (const auto& [image, width, height, preparation, prepared] : cases) {
    SCOPED_TRACE(preparation);
    RunJson({"outputs", "--save", ".", Caffe(kCopy, width, height, preparation), image + ".png"});
    const std::string npy = Text(image + ".x.npy");
    ASSERT_EQ(128 + prepared.size() * sizeof(float), npy.size());
    EXPECT_EQ(std::string("\x93NUMPY\x01\0\x76\0", 10), npy.substr(0, 10));
    std::vector<float> values(prepared.size());
    npy.copy(reinterpret_cast<char*>(values.data()), npy.size(), 128);
    EXPECT_EQ(prepared, values);
  }
}

TEST_F(VelmoraModelTest, TableShowsAnswersAndWhichAreWrong) {
  Write("t.csv", "file,label\r\n0000.png,6\r\n\"images/0001.png\",9\n");
  const Finished finished = Run({"run", "--top", "2", "--truth", "t.csv", kModel, "images/0000.png",
                                 "images/0001.png", "images/0002.png", "images/0000.png"});
  EXPECT_EQ("", finished.error);
  EXPECT_EQ(3 + 1 + 3 * 2 + 2, std::count(finished.output.begin(), finished.output.end(), '\n'));
  EXPECT_THAT(finished.output,
              MatchesRegex(".*/0000\\.png  6 .*  6\n.*/0001\\.png  3 .*  9  wrong\n"
                           ".*\naccuracy: 1 of 2 \\(50\\.0 %\\)\n"));
}

TEST_F(VelmoraModelTest, AnnotatesWithoutReplacingAnything) {
  const std::string input = Write("0000.png", Text("images/0000.png"));
  ASSERT_EQ(0, Run({"run", "--annotate", "new/answers", kModel, "images", input}).status);
  EXPECT_TRUE(fs::exists("new/answers/0000-2.png"));  // of two images of a name
  cv::Mat picture = cv::imread("images/0001.png");
  const cv::Mat annotated = cv::imread("new/answers/0001.png");
  cv::resize(picture, picture, {}, 2, 2, cv::INTER_NEAREST);  // to be read at all
  EXPECT_EQ(0, cv::norm(annotated.rowRange(0, picture.rows), picture));
  EXPECT_LT(0, cv::norm(annotated.rowRange(picture.rows, annotated.rows)));  // the text

  // Nor is anything written through a link, or a FIFO waited for.
  const std::string other = Write("other", "as it was");
  fs::create_directory("used");
  fs::create_hard_link(input, "used/0000.png");
  fs::create_symlink(fs::absolute(other), "used/0001.png");
  ASSERT_EQ(0, mkfifo("used/0002.png", 0600));
  const Finished refused =
      Run({"run", "--annotate", "used", kModel, input, "images/0001.png", "images/0002.png"});
  EXPECT_EQ(1, refused.status);
  EXPECT_THAT(refused.error, testing::ContainsRegex("used/0000.png: is an input image\n"
                                                    ".*used/0001.png: is a link\n"
                                                    ".*used/0002.png: is not a file\n"));
  EXPECT_EQ(Text("images/0000.png"), Text(input));
  EXPECT_EQ("as it was", Text(other));
}

TEST_F(VelmoraModelTest, BadImagesAreOneLineEachAndTheOthersAreDone) {
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", cv::Mat(300, 300, CV_8UC3, cv::Scalar(1, 99, 200)), jpeg);
  jpeg.resize(jpeg.size() / 2);
  std::vector<unsigned char> huge;
  cv::imencode(".bmp", cv::Mat(1, 1, CV_8UC3), huge);
  huge[19] = huge[23] = 0x60;  // width and height, of which these are the second bytes
  fs::create_directory("none");
  const std::pair<std::string, std::string> images_and_errors[] = {
      {"none", "none: no images in this folder"},
      {"[gone]", "./[gone]: No such file or directory"},
      {Write("empty.png", ""), "empty.png: the file is empty"},
      {Write("cut.jpg", {jpeg.begin(), jpeg.end()}), "cut.jpg: the image is cut short"},
      {Write("cut.png", Text(kGood).substr(0, 1500)), "cut.png: cannot be decoded as an image"},
      {Write("huge.bmp", {huge.begin(), huge.end()}),
       "huge.bmp: 24577 x 24577 pixels are more than the 268435456 that are read"},
      {Write("\n\x1b\xff\u202E e\u0301.png", "text"),
       "\\n\\x1b\\xff\\xe2\\x80\\xae e\u0301.png: cannot be decoded as an image"},
  };
  std::vector<std::string> arguments = {"run", "--batch=2", "--", kModel, kGood};
  std::string errors;
  for (const auto& [image, error] : images_and_errors) {
    arguments.push_back(image);
    errors += "velmora-model: " + error + "\n";
  }
  const Finished finished = Run(arguments);
  EXPECT_EQ(1, finished.status);
  EXPECT_EQ(errors, finished.error);
  EXPECT_THAT(finished.output, HasSubstr(kGood));
}

TEST_F(VelmoraModelTest, ShowsAndSavesOutputsAsTheyAre) {
  for (const auto& [backend, runs] : kRuns) {
    if (runs) {
      SCOPED_TRACE(backend);
      const Json::Value output = RunJson({"outputs", kModel, kGood, "--backend", backend, "--save",
                                          backend})["images"][0]["outputs"][0];
      EXPECT_EQ(Parse("[1, 10]"), output["shape"]);
      EXPECT_NEAR(0.1, output["mean"].asDouble(), 1e-6);
      EXPECT_EQ("{'descr': '<f4', 'fortran_order': False, 'shape': (1, 10), }",
                Text(output["saved"].asString()).substr(10, 60));
    }
  }
  if (kRuns.at("tflite")) {  // where the output may have any name
    RunJson(
        {"outputs", Changed("\"prob\"", "\"a/b.c\""), kGood, "--backend", "tflite", "--save", "."});
    EXPECT_TRUE(fs::exists("0003.a_b.c.npy"));
  }
  const std::string infinite = Caffe(kCopy, 1, 1, R"("gray", "scale": 3e38)");
  const Json::Value output = RunJson({"outputs", infinite, kGood})["images"][0]["outputs"][0];
  EXPECT_EQ(1, output["not_finite"].asInt());
  EXPECT_EQ(0, output["min"].asDouble());
}

TEST_F(VelmoraModelTest, ShowsValuesThatAreNoProbabilitiesAsValues) {
  const Finished finished = Run({"run", Changed("\"prob\"", "\"score\""), "images", "--json"});
  EXPECT_EQ(0, finished.status);
  EXPECT_EQ(1, std::count(finished.error.begin(), finished.error.end(), '\n'));
  const Json::Value report = Parse(finished.output);
  EXPECT_LT(1, report["images"][0]["answers"][0]["value"].asDouble());
  EXPECT_GE(report["accuracy"]["ratio"].asDouble(), 0.97);
}

}  // namespace
}  // namespace velmora::test
