// velmora-model, run as its users run it, on the sample model and on small ones of the tests' own.
#pragma once

#include <gmock/gmock.h>
#include <json/json.h>

#include <map>
#include <sstream>

#include "support/processes.h"
#include "support/subprocess.h"

namespace velmora::test {

inline const std::map<std::string, bool> kRuns = {
    {"dnn", true},
    {"ie", VELMORA_HAS_INFERENCE_ENGINE && !VELMORA_IS_SANITIZED},  // see no_deepbind.cpp
    {"tflite", VELMORA_HAS_TENSORFLOW_LITE}};
inline const std::string kModel = "model.json";
inline const std::string kGood = "images/0003.png";

/// A Caffe network without weights, whose output "x" is its input.
inline const std::string kCopy =
    "input: 'data' layer { name: 'x' type: 'Split' bottom: 'data' top: 'x' }";

inline std::string Write(const std::string& name, const std::string& text) {
  SetText(name, text);
  return name;
}

inline Json::Value Parse(const std::string& text) {
  Json::Value document;
  std::istringstream(text) >> document;
  return document;
}

/// In a new working directory with links to the sample's files, on a machine for OpenCV alone.
class VelmoraModelTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    Machine("");
    namespace fs = std::filesystem;
    for (const fs::path& file : fs::directory_iterator(VELMORA_SAMPLE_MODEL)) {
      fs::create_symlink(file, file.filename());
    }
  }

  /// What the machine supports, see machine.h.
  static void Machine(const char* engines) { setenv("VELMORA_TEST_PLATFORM", engines, 1); }

  static Finished Run(std::vector<std::string> arguments, ErrorTo error_to = ErrorTo::kPipe) {
    arguments.insert(arguments.begin(), VELMORA_MODEL_PROGRAM);
    return RunProcess(arguments, error_to);
  }

  static Json::Value RunJson(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    const Finished finished = Run(arguments);
    EXPECT_EQ(0, finished.status);
    EXPECT_EQ("", finished.error);
    return Parse(finished.output);
  }

  /// The sample's MODEL.json with one place changed.
  std::string Changed(const std::string& from, const std::string& to) {
    std::string text = Text(kModel);
    return NewFile(".json", text.replace(text.find(from), from.size(), to));
  }

  /// A MODEL.json, without labels, of a Caffe network whose output is "x".
  std::string Caffe(const std::string& network, int width, int height,
                    const std::string& channels_and_more) {
    Write("weights", "\x0a\x01x");  // the network's name
    const std::string size =
        R"("width": )" + std::to_string(width) + R"(, "height": )" + std::to_string(height);
    return NewFile(".json", R"({"network": {"output_names": ["x"], "enable_dnn": true, )"
                            R"("dnn_caffemodel_path": "weights", "dnn_prototxt_path": ")" +
                                NewFile(".prototxt", network) + R"("}, "image": {)" + size +
                                R"(, "channels": )" + channels_and_more + "}}");
  }

  std::string NewFile(const std::string& extension, const std::string& text) {
    return Write(std::to_string(++files_) + extension, text);
  }

  int files_ = 0;
};

}  // namespace velmora::test
