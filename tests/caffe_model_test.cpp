#include "opencv/caffe_model.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "caffe_format.h"
#include "support/caffe_writer.h"
#include "support/hostile.h"

namespace velmora::plugin::network::compat {
namespace {

namespace pb = ::google::protobuf;
using test::BytesField;
using test::CaffeModel;
using test::FlipOneBit;
using test::Outcome;
using test::VarintField;
using test::WriteFile;

::cv::Mat Output(::cv::dnn::Net net, int side = 8) {
  const int shape[] = {1, 3, side, side};
  ::cv::Mat input(4, shape, CV_32F);
  ::cv::RNG(7).fill(input, ::cv::RNG::UNIFORM, -1, 1);
  net.setInput(input, "data");
  return net.forward("prob").clone();
}

::cv::dnn::Net Pair(const std::string& prototxt, const std::string& weights) {
  return ReadCaffePair(WriteFile("net.prototxt", prototxt), WriteFile("net.caffemodel", weights));
}

::cv::dnn::Net Binary(const std::string& bytes) {
  return ReadCaffeBinary(WriteFile("net.binary", bytes));
}

TEST(CaffeModel, OneFileComputesWhatOpenCvMakesOfThePair) {
  for (const CaffeModel& model : {test::NewFormModel(), test::OldFormModel()}) {
    const ::cv::Mat expected = Output(::cv::dnn::readNetFromCaffe(
        WriteFile("net.prototxt", model.prototxt), WriteFile("net.caffemodel", model.weights)));
    ASSERT_EQ(expected.total(), 5U);
    EXPECT_EQ(::cv::norm(expected, Output(Binary(model.binary)), ::cv::NORM_INF), 0);
    EXPECT_EQ(::cv::norm(expected, Output(Pair(model.prototxt, model.weights)), ::cv::NORM_INF), 0);
  }
}

// ---- the format --------------------------------------------------------------------------------

void AddFields(const pb::Descriptor& message, std::set<std::string>& fields) {
  // The reader knows this one only in part, and on purpose.
  if (message.name() == "V0LayerParameter" || !fields.insert(message.name()).second) return;
  for (int i = 0; i < message.field_count(); ++i) {
    const pb::FieldDescriptor& field = *message.field(i);
    const std::string name = message.name() + '.' + field.name();
    fields.insert(name + ' ' + field.type_name() + ' ' + std::to_string(field.number()) + ' ' +
                  std::to_string(field.label()));
    for (int k = 0; field.enum_type() != nullptr && k < field.enum_type()->value_count(); ++k) {
      const pb::EnumValueDescriptor& value = *field.enum_type()->value(k);
      fields.insert(name + ' ' + value.name() + ' ' + std::to_string(value.number()));
    }
    if (field.message_type() != nullptr) AddFields(*field.message_type(), fields);
  }
}

// A field that only the reader knew would be dropped by OpenCV without a word, and one that only
// OpenCV knew would have a good model refused.
TEST(CaffeModel, TheFormatIsTheOneThatOpenCvReads) {
  const pb::Descriptor* theirs =
      pb::DescriptorPool::generated_pool()->FindMessageTypeByName("opencv_caffe.NetParameter");
  if (theirs == nullptr) GTEST_SKIP() << "this OpenCV has a protobuf library of its own";
  pb::FileDescriptorSet files;
  ASSERT_TRUE(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
  pb::DescriptorPool pool;
  std::set<std::string> our_fields;
  AddFields(*pool.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter"), our_fields);
  std::set<std::string> their_fields;
  AddFields(*theirs, their_fields);
  EXPECT_EQ(our_fields, their_fields);
}

// ---- what is refused ---------------------------------------------------------------------------

/// One layer, of one blob of 2 x 3.
const char* const kPrototxt =
    "input: 'data' layer { name: 'prob' type: 'InnerProduct' bottom: 'data' top: 'prob'"
    "  inner_product_param { num_output: 2 bias_term: false } }";

/// The same as one file, with more bytes in the network, the layer and its parameter message.
std::string OneLayer(const std::string& blob, const std::string& in_net = "",
                     const std::string& in_layer = "", const std::string& in_param = "") {
  return BytesField(3, "data") +
         BytesField(100, BytesField(1, "prob") + BytesField(2, "InnerProduct") +
                             BytesField(3, "data") + BytesField(4, "prob") +
                             BytesField(117, VarintField(1, 2) + VarintField(2, 0) + in_param) +
                             BytesField(7, blob) + in_layer) +
         in_net;
}

std::string Shape(const std::vector<std::uint64_t>& dims) {
  std::string shape;
  for (const std::uint64_t dim : dims) shape += VarintField(1, dim);
  return BytesField(7, shape);
}

// 1 to 6 in single and in half precision.
const std::string kFloats("\0\0\x80\x3f\0\0\0\x40\0\0\x40\x40\0\0\x80\x40\0\0\xa0\x40\0\0\xc0\x40",
                          24);
const std::string kHalves("\0\x3c\0\x40\0\x42\0\x44\0\x45\0\x46", 12);
const std::string kBlob = Shape({2, 3}) + BytesField(5, kFloats);

TEST(CaffeModel, FilesThatAreNoSingleFileModelsGiveAnEmptyNet) {
  ASSERT_FALSE(Binary(OneLayer(kBlob)).empty());
  const CaffeModel model = test::NewFormModel();
  const std::string relu = BytesField(2, "data") + BytesField(3, "prob");
  const std::pair<const char*, std::string> cases[] = {
      {"a description as text", model.prototxt},
      {"the weights of a pair", model.weights},
      {"no layers", BytesField(3, "data")},
      {"both forms of layers", OneLayer(kBlob, BytesField(2, relu + VarintField(5, 18)))},
      {"the oldest form",
       BytesField(3, "data") + BytesField(2, relu + BytesField(1, VarintField(3, 1)))},
      {"a field that the format lacks, in the network", OneLayer(kBlob, VarintField(99, 1))},
      {"in a parameter message", OneLayer(kBlob, "", "", VarintField(7, 1))},
      {"in a shape", OneLayer(kBlob + BytesField(7, VarintField(2, 1)))},
      {"a value that its enumeration lacks", OneLayer(kBlob, "", VarintField(10, 9))},
      {"a parameter message without what it requires", OneLayer(kBlob, "", BytesField(10002, ""))},
  };
  for (const auto& [name, bytes] : cases) {
    EXPECT_TRUE(Binary(bytes).empty()) << name;
  }

  // Bytes that no check could be made of.
  const std::pair<const char*, std::string> uncheckable[] = {
      {"bytes behind a zero", std::string(1, '\0') + "rest"},
      {"a group", "\x4b\x4c"},
      {"a name of 5 MiB", BytesField(1, std::string(5U << 20, 'n'))},
  };
  for (const auto& [name, bytes] : uncheckable) {
    EXPECT_TRUE(Binary(OneLayer(kBlob, bytes)).empty()) << name;
    EXPECT_TRUE(Pair(kPrototxt, OneLayer(kBlob, bytes)).empty()) << name;
  }

  const std::string fifo = WriteFile("fifo", "");
  unlink(fifo.c_str());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/tmp"), std::string("missing")}) {
    EXPECT_TRUE(ReadCaffeBinary(path).empty()) << path;
  }
  const std::string text = WriteFile("net.prototxt", kPrototxt);
  EXPECT_TRUE(ReadCaffePair(fifo, WriteFile("net.caffemodel", model.weights)).empty());
  EXPECT_TRUE(ReadCaffePair(text, fifo).empty());
  EXPECT_THROW(ReadCaffePair("missing", "missing"), ::cv::Exception);
  EXPECT_THROW(ReadCaffePair(text, "missing"), ::cv::Exception);
  EXPECT_THROW(Pair(model.prototxt, model.weights.substr(0, 99)), ::cv::Exception);
}

TEST(CaffeModel, ABlobMustCarryWhatItClaims) {
  const std::string floats = BytesField(5, kFloats);
  const std::string old_shape =
      VarintField(1, 2) + VarintField(2, 3) + VarintField(3, 1) + VarintField(4, 1);
  const std::string float_type = VarintField(10, 1);
  const std::string half_type = VarintField(10, 2);

  const std::pair<const char*, std::string> refused[] = {
      {"a count that is 1 in 32 bits", Shape({641, 6700417}) + floats},
      {"a count that is 6 in 64 bits", Shape({2112351278, 998034439, 35}) + floats},
      {"one value too few", Shape({1, 7}) + floats},
      {"a dimension of which 4 are 4 in 64 bits", Shape({4, (1ULL << 62) + 1}) + floats},
      {"the same, negative", Shape({4, 1 - (1ULL << 62)}) + floats},
      {"a shape without dimensions", Shape({}) + floats},
      {"no values claimed", Shape({0, 3}) + float_type + BytesField(12, "")},
      {"an old shape beside a new one", Shape({1, 1}) + VarintField(1, 9) + floats},
      {"short raw halves", Shape({2, 3}) + half_type + BytesField(12, kHalves.substr(1))},
      {"raw bytes, the last being short",
       Shape({2, 3}) + float_type + BytesField(12, kFloats) + BytesField(12, "")},
      {"raw bytes that OpenCV does not read",
       Shape({2, 3}) + VarintField(10, 0) + BytesField(12, kFloats + kFloats)},
  };
  for (const auto& [name, blob] : refused) {
    EXPECT_TRUE(Binary(OneLayer(blob)).empty()) << name;
    EXPECT_TRUE(Pair(kPrototxt, OneLayer(blob)).empty()) << name;
  }

  const ::cv::Mat expected = Output(Binary(OneLayer(kBlob)), 1);
  ASSERT_EQ(expected.total(), 2U);
  const std::pair<const char*, std::string> good[] = {
      {"some values packed", "\x2d" + kFloats.substr(0, 4) + BytesField(5, kFloats.substr(4, 4)) +
                                 BytesField(5, kFloats.substr(8)) + Shape({2, 3})},
      {"an old shape", old_shape + floats},
      {"raw floats", Shape({2, 3}) + BytesField(12, "") + float_type + BytesField(12, kFloats)},
      {"raw halves", Shape({2, 3}) + half_type + BytesField(12, kHalves)},
  };
  for (const auto& [name, blob] : good) {
    EXPECT_EQ(::cv::norm(expected, Output(Binary(OneLayer(blob)), 1), ::cv::NORM_INF), 0) << name;
  }
}

TEST(CaffeModel, DescriptionsThatCrashOpenCvGiveAnEmptyNet) {
  const std::string input = "input: 'data' ";
  const std::string ends = "name: 'x' bottom: 'data' top: 'prob' ";
  const std::string layer = "layer { " + ends;
  const std::string norm = "type: 'BatchNorm' batch_norm_param { use_global_stats: false } }";
  const std::string refused[] = {
      layer + "type: 'Convolution' embed_param { num_output: 0 } }",
      layer + "type: 'Convolution' convolution_param { kernel_size: 3 kernel_size: 40000 } }",
      "layers { " + ends + "type: CONVOLUTION convolution_param { group: 0 } }",
      layer + "type: 'Scale' scale_param { axis: -1 } }",
      layer + "type: 'Proposal' proposal_param { post_nms_topn: 2147483648 } }",
      layer + "type: 'LRN' bottom: 'data' }",
      "layers { " + ends + "top: 'more' type: SILENCE }",
      "layer { name: 'x' type: 'Scale' top: 'prob' }",
      // Blobs are found by the name of their layer, and once.
      layer + norm + "layer { name: 'x' bottom: 'prob' top: 'more' " + norm,
  };
  for (const std::string& text : refused) {
    const CaffeModel model = test::MakeCaffeModel(input + text, {{"x", {3}}, {"x", {3}}});
    EXPECT_TRUE(Pair(model.prototxt, model.weights).empty()) << text;
    EXPECT_TRUE(Binary(model.binary).empty()) << text;
  }
}

// ---- memory ------------------------------------------------------------------------------------

TEST(CaffeModel, HalfAGigabyteLoadsWithOneCopyOfTheWeightsBesideOpenCvsOwn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's memory is not the program's";
#endif
  constexpr std::uint64_t kSide = 11586;  // its square is 512 MiB of floats
  constexpr std::uint64_t kBytes = kSide * kSide * sizeof(float);
  // The messages are built from inside out, without their last field's bytes: a hole in the file.
  const auto open_field = [](int number, const std::string& head) {
    const std::string tag_and_size = VarintField(number, head.size() + kBytes);
    return std::string(1, static_cast<char>(tag_and_size[0] | 2)) + tag_and_size.substr(1) + head;
  };
  const std::string blob = open_field(7, Shape({kSide, kSide}) + open_field(5, ""));
  const std::string layer = BytesField(1, "prob") + BytesField(2, "InnerProduct") +
                            BytesField(3, "data") + BytesField(4, "prob") +
                            BytesField(117, VarintField(1, kSide) + VarintField(2, 0)) + blob;
  const std::string path = WriteFile("half", BytesField(3, "data") + open_field(100, layer));
  std::filesystem::resize_file(path, std::filesystem::file_size(path) + kBytes);

  const pid_t child = fork();
  if (child == 0) _exit(ReadCaffeBinary(path).empty() ? 1 : 0);
  int status = 0;
  rusage usage = {};
  ASSERT_EQ(wait4(child, &status, 0, &usage), child);
  unlink(path.c_str());
  EXPECT_EQ(status, 0);
  EXPECT_LT(usage.ru_maxrss, static_cast<long>(kBytes * 2 + kBytes / 8) / 1024);
}

// ---- damage ------------------------------------------------------------------------------------

Outcome Try(const std::function<::cv::dnn::Net()>& load) {
  ::cv::setNumThreads(1);
  ::cv::dnn::Net net;
  try {
    net = load();
    if (!net.empty()) Output(net);
  } catch (const std::exception&) {
    return net.empty() ? Outcome::kRefused : Outcome::kFailed;
  }
  return net.empty() ? Outcome::kRefused : Outcome::kRan;
}

// docs/hostile-models.md lists what OpenCV itself does not survive; no layer of that list is used
// here, so that no death is to be excused.
TEST(CaffeModel, EveryTruncationAndThousandsOfFlippedBitsAreSurvived) {
  const test::MemoryFile first;
  const test::MemoryFile second;
  const auto binary = [&](const std::string& bytes) {
    return Try([&] { return ReadCaffeBinary(first.With(bytes)); });
  };
  const auto pair = [&](const std::string& prototxt, const std::string& weights) {
    return Try([&] { return ReadCaffePair(first.With(prototxt), second.With(weights)); });
  };
  for (const CaffeModel& model : {test::NewFormModel(), test::OldFormModel()}) {
    const auto& [text, weights, all] = model;
    test::ExpectSurvival("truncated binary", test::Truncations(all),
                         [&](int i) { return binary(test::Truncated(all, i)); });
    test::ExpectSurvival("flipped binary", 3000 / test::kStride,
                         [&](int i) { return binary(FlipOneBit(all, i)); });
    test::ExpectSurvival("flipped weights", 1000 / test::kStride,
                         [&](int i) { return pair(text, FlipOneBit(weights, i)); });
    test::ExpectSurvival("flipped prototxt", 2000 / test::kStride,
                         [&](int i) { return pair(FlipOneBit(text, i), weights); });
  }
}

}  // namespace
}  // namespace velmora::plugin::network::compat
