#include "opencv/caffe_model.h"

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <sstream>

#include "caffe_format.h"
#include "support/caffe_writer.h"

namespace velmora::plugin::network::compat {
namespace {

namespace pb = ::google::protobuf;
using test::BytesField;
using test::CaffeModel;
using test::VarintField;
using test::WriteFile;

::cv::Mat Output(::cv::dnn::Net net, const std::string& name = "prob") {
  const int shape[] = {1, 3, 8, 8};
  ::cv::Mat input(4, shape, CV_32F);
  ::cv::RNG(7).fill(input, ::cv::RNG::UNIFORM, -1, 1);
  net.setInput(input, "data");
  return net.forward(name).clone();
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

std::set<std::string> FieldsOf(const pb::Descriptor& root) {
  std::set<std::string> lines;
  std::set<const pb::Descriptor*> seen;
  const std::function<void(const pb::Descriptor&)> add = [&](const pb::Descriptor& message) {
    // The reader knows this one only in part, and on purpose.
    if (message.name() == "V0LayerParameter" || !seen.insert(&message).second) return;
    for (int i = 0; i < message.field_count(); ++i) {
      const pb::FieldDescriptor& field = *message.field(i);
      std::ostringstream line;
      line << message.name() << '.' << field.name() << ' ' << field.type_name() << ' '
           << field.number() << ' ' << field.is_required() << field.is_repeated();
      if (const pb::EnumDescriptor* values = field.enum_type()) {
        std::set<std::string> names;
        for (int k = 0; k < values->value_count(); ++k) {
          names.insert(std::string(values->value(k)->name()) +
                       std::to_string(values->value(k)->number()));
        }
        for (const std::string& name : names) line << ' ' << name;
      }
      lines.insert(line.str());
      if (field.message_type() != nullptr) add(*field.message_type());
    }
  };
  add(root);
  return lines;
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
  const pb::Descriptor* ours = pool.BuildFile(files.file(0))->FindMessageTypeByName("NetParameter");
  EXPECT_EQ(FieldsOf(*ours), FieldsOf(*theirs));
  EXPECT_GT(FieldsOf(*ours).size(), 300U);
}

// ---- what is refused ---------------------------------------------------------------------------

std::string PackedFloats(const std::vector<float>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)};
}

const std::string kShape23 = BytesField(7, VarintField(1, 2) + VarintField(1, 3));
const std::string kSixFloats = PackedFloats({1, 2, 3, 4, 5, 6});

/// A network that takes the mean of each channel and multiplies it by one blob of 2 x 3.
const char* const kIpPrototxt =
    "input: 'data'"
    "layer { name: 'mean' type: 'Pooling' bottom: 'data' top: 'mean'"
    "  pooling_param { pool: AVE global_pooling: true } }"
    "layer { name: 'prob' type: 'InnerProduct' bottom: 'mean' top: 'prob'"
    "  inner_product_param { num_output: 2 bias_term: false } }";

/// The same as one file, with more bytes in the network, a layer and a parameter message.
std::string IpBinary(const std::string& blob, const std::string& in_net = "",
                     const std::string& in_layer = "", const std::string& in_param = "") {
  return BytesField(3, "data") +
         BytesField(100, BytesField(1, "mean") + BytesField(2, "Pooling") + BytesField(3, "data") +
                             BytesField(4, "mean") +
                             BytesField(121, VarintField(1, 1) + VarintField(12, 1))) +
         BytesField(100, BytesField(1, "prob") + BytesField(2, "InnerProduct") +
                             BytesField(3, "mean") + BytesField(4, "prob") +
                             BytesField(117, VarintField(1, 2) + VarintField(2, 0) + in_param) +
                             BytesField(7, blob) + in_layer) +
         in_net;
}

TEST(CaffeModel, FilesThatAreNoSingleFileModelsGiveAnEmptyNet) {
  const std::string good = kShape23 + BytesField(5, kSixFloats);
  ASSERT_FALSE(Binary(IpBinary(good)).empty());
  const CaffeModel model = test::NewFormModel();
  const std::string relu = BytesField(2, "data") + BytesField(3, "prob");
  const std::pair<const char*, std::string> cases[] = {
      {"nothing", ""},
      {"eight bytes", "notmodel"},
      {"a description as text", model.prototxt},
      {"the weights of a pair", model.weights},
      {"no layers", BytesField(1, "name") + BytesField(3, "data")},
      {"both forms of layers", IpBinary(good, BytesField(2, relu + VarintField(5, 18)))},
      {"the oldest form",
       BytesField(3, "data") + BytesField(2, relu + BytesField(1, VarintField(3, 1)))},
      {"a field that the format lacks, in the network", IpBinary(good, VarintField(99, 1))},
      {"in a layer", IpBinary(good, "", BytesField(204, ""))},
      {"in a parameter message", IpBinary(good, "", "", VarintField(7, 1))},
      {"in a blob", IpBinary(good + VarintField(13, 1))},
      {"in a shape", IpBinary(good + BytesField(7, VarintField(2, 1)))},
      {"a known field of another type", IpBinary(good, BytesField(5, "x"))},
      {"a value that its enumeration lacks", IpBinary(good, "", VarintField(10, 9))},
      {"a parameter message without what it requires", IpBinary(good, "", BytesField(10002, ""))},
  };
  for (const auto& [name, bytes] : cases) {
    EXPECT_TRUE(Binary(bytes).empty()) << name;
  }

  // Bytes that no check could be made of.
  std::string numbers;
  while (numbers.size() < 5U << 20) numbers += VarintField(7, 1);
  const std::pair<const char*, std::string> uncheckable[] = {
      {"bytes behind a zero", std::string(1, '\0') + "rest"},
      {"a group", "\x4b\x4c"},
      {"the end of a group", "\x4c"},
      {"a name of 5 MiB", BytesField(1, std::string(5U << 20, 'n'))},
      {"5 MiB of numbers", numbers},
  };
  for (const auto& [name, bytes] : uncheckable) {
    EXPECT_TRUE(Binary(IpBinary(good, bytes)).empty()) << name;
    EXPECT_TRUE(Pair(kIpPrototxt, IpBinary(good, bytes)).empty()) << name;
  }

  const std::string fifo = WriteFile("fifo", "");
  unlink(fifo.c_str());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/tmp"), std::string("missing")}) {
    EXPECT_TRUE(ReadCaffeBinary(path).empty()) << path;
  }
  const std::string text = WriteFile("net.prototxt", model.prototxt);
  EXPECT_TRUE(ReadCaffePair(fifo, WriteFile("net.caffemodel", model.weights)).empty());
  EXPECT_TRUE(ReadCaffePair(text, fifo).empty());
  unlink(fifo.c_str());
  EXPECT_THROW(ReadCaffePair("missing", "missing"), ::cv::Exception);
  EXPECT_THROW(ReadCaffePair(text, "missing"), ::cv::Exception);
  EXPECT_THROW(Pair(model.prototxt, model.weights.substr(0, 99)), ::cv::Exception);
}

TEST(CaffeModel, ABlobMustCarryWhatItClaims) {
  const auto dims = [](const std::vector<std::uint64_t>& numbers) {
    std::string shape;
    for (const std::uint64_t number : numbers) shape += VarintField(1, number);
    return BytesField(7, shape);
  };
  const std::string float_type = VarintField(10, 1);
  const std::string half_type = VarintField(10, 2);
  const std::string one_float = BytesField(5, PackedFloats({1}));
  const std::string six_floats = BytesField(5, kSixFloats);
  std::string unpacked;
  for (std::size_t i = 0; i < kSixFloats.size(); i += 4) {
    unpacked += "\x2d" + kSixFloats.substr(i, 4);
  }
  // 1 to 6 in half precision.
  const std::string halves("\x00\x3c\x00\x40\x00\x42\x00\x44\x00\x45\x00\x46", 12);

  const std::pair<const char*, std::string> refused[] = {
      {"a count that is 1 in 32 bits", dims({641, 6700417}) + one_float},
      {"a count that is 6 in 64 bits", dims({2112351278, 998034439, 35}) + six_floats},
      {"one value too few", dims({1, 7}) + six_floats},
      {"a dimension of which 4 are 4 in 64 bits", dims({4, (1ULL << 62) + 1}) + six_floats},
      {"the same, negative", dims({4, 1 - (1ULL << 62)}) + six_floats},
      {"a shape in two parts", dims({2, 3}) + dims({2}) + six_floats},
      {"a shape without dimensions", dims({}) + one_float},
      {"no values claimed", dims({0, 3}) + float_type + BytesField(12, "")},
      {"an old shape",
       VarintField(1, 2) + VarintField(2, 3) + VarintField(3, 2) + VarintField(4, 1) + six_floats},
      {"an old shape before a new one", dims({2, 3}) + VarintField(1, 1) + six_floats},
      {"a scalar with nothing", ""},
      {"short raw floats", dims({2, 3}) + float_type + BytesField(12, kSixFloats.substr(1))},
      {"short raw halves", dims({2, 3}) + half_type + BytesField(12, halves.substr(1))},
      {"raw bytes, the last being short",
       dims({2, 3}) + float_type + BytesField(12, kSixFloats) + BytesField(12, "")},
      {"raw bytes that OpenCV does not read",
       dims({2, 3}) + VarintField(10, 0) + BytesField(12, kSixFloats + kSixFloats)},
      {"doubles, which OpenCV does not read", dims({2, 3}) + BytesField(8, std::string(48, '\0'))},
  };
  for (const auto& [name, blob] : refused) {
    EXPECT_TRUE(Binary(IpBinary(blob)).empty()) << name;
    EXPECT_TRUE(Pair(kIpPrototxt, IpBinary(blob)).empty()) << name;
  }

  const ::cv::Mat expected = Output(Binary(IpBinary(dims({2, 3}) + six_floats)));
  ASSERT_EQ(expected.total(), 2U);
  ASSERT_GT(::cv::norm(expected), 0.01);
  const std::pair<const char*, std::string> good[] = {
      {"unpacked values", unpacked + kShape23},
      {"some of each", unpacked.substr(0, 10) + BytesField(5, kSixFloats.substr(8)) + kShape23},
      {"a packed shape", BytesField(7, BytesField(1, "\x02\x03")) + six_floats},
      {"a shape in two parts", dims({2}) + dims({3}) + six_floats},
      {"an old shape",
       VarintField(1, 2) + VarintField(2, 3) + VarintField(3, 1) + VarintField(4, 1) + six_floats},
      {"raw floats", dims({2, 3}) + BytesField(12, "") + float_type + BytesField(12, kSixFloats)},
      {"raw halves", dims({2, 3}) + half_type + BytesField(12, halves)},
  };
  for (const auto& [name, blob] : good) {
    EXPECT_EQ(::cv::norm(expected, Output(Binary(IpBinary(blob))), ::cv::NORM_INF), 0) << name;
  }
}

TEST(CaffeModel, DescriptionsThatCrashOpenCvGiveAnEmptyNet) {
  const std::string input = "input: 'data' ";
  const std::string ends = " bottom: 'data' top: 'prob' ";
  const std::string layer = "layer { name: 'x' " + ends;
  const std::string refused[] = {
      layer + "type: 'Convolution' convolution_param { num_output: 3 kernel_size: 1 group: 0 } }",
      layer + "type: 'InnerProduct' inner_product_param { num_output: 0 } }",
      layer + "type: 'Convolution' embed_param { num_output: 0 } }",
      layer + "type: 'Convolution' convolution_param { kernel_size: 3 kernel_size: 40000 } }",
      layer + "type: 'Convolution' convolution_param { kernel_h: 40000 } }",
      layer + "type: 'Convolution' convolution_param { kernel_w: 40000 } }",
      "layers { name: 'x'" + ends + "type: CONVOLUTION convolution_param { group: 0 } }",
      layer +
          "type: 'Convolution' convolution_param { num_output: 3 dilation: 1"
          "  dilation: 2147483647 } }",
      layer + "type: 'Scale' scale_param { axis: -1 } }",
      layer + "type: 'Slice' slice_param { axis: 65536 } }",
      layer + "type: 'Permute' permute_param { order: 0 order: 4000000000 } }",
      layer + "type: 'Proposal' proposal_param { post_nms_topn: 2147483648 } }",
      layer + "type: 'LRN' bottom: 'data' }",
      layer + "type: 'Dropout' top: 'more' }",
      layer + "type: 'Identity' top: 'more' }",
      "layers { name: 'x'" + ends + "top: 'more' type: SILENCE }",
      layer + "type: 'Deconvolution' convolution_param { num_output: 3 kernel_size: 1 } }",
      "layers { name: 'x'" + ends + "type: DECONVOLUTION convolution_param { num_output: 3 } }",
      layer + "type: 'BatchNorm' batch_norm_param { use_global_stats: false } }",
      layer + "type: 'GRU' }",
      layer + "type: 'CumSum' }",
      "layer { name: 'x' type: 'Scale' top: 'prob' }",
  };
  for (const std::string& text : refused) {
    const CaffeModel model = test::MakeCaffeModel(input + text, {});
    EXPECT_TRUE(Pair(model.prototxt, model.weights).empty()) << text;
    EXPECT_TRUE(Binary(model.binary).empty()) << text;
  }
  EXPECT_TRUE(Pair(input + "layers { " + ends + " layer { name: 'x' type: 'conv' group: 0 } }", "")
                  .empty());

  // Blobs are found by the name of their layer, and once.
  const std::string two_of_a_name =
      input + layer + "type: 'BatchNorm' batch_norm_param { use_global_stats: false } }" +
      "layer { name: 'x' type: 'BatchNorm' bottom: 'prob' top: 'more'" +
      "  batch_norm_param { use_global_stats: false } }";
  EXPECT_TRUE(Binary(test::MakeCaffeModel(two_of_a_name, {{"x", {3}}, {"x", {3}}}).binary).empty());
}

// ---- memory ------------------------------------------------------------------------------------

/// Peak memory in KiB of a child process that runs `work`; 0 if that does not succeed.
long PeakOf(const std::function<bool()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    bool done = false;
    try {
      done = work();
    } catch (const std::exception&) {
    }
    _exit(done ? 0 : 1);
  }
  int status = 0;
  rusage usage = {};
  if (wait4(child, &status, 0, &usage) != child || status != 0) return 0;
  return usage.ru_maxrss;
}

TEST(CaffeModel, HalfAGigabyteLoadsWithoutAnotherCopyOfTheWeights) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's memory is not the program's";
#endif
  struct sysinfo memory = {};
  sysinfo(&memory);
  if ((memory.freeram + memory.bufferram) / 1024 * memory.mem_unit < (4L << 20)) {
    GTEST_SKIP() << "less than 4 GiB of memory free";
  }
  constexpr std::uint64_t kSide = 11586;  // its square is 512 MiB of floats
  constexpr std::uint64_t kBytes = kSide * kSide * sizeof(float);
  const std::string prototxt =
      "input: 'data' layer { name: 'prob' type: 'InnerProduct'"
      " bottom: 'data' top: 'prob' inner_product_param { num_output: 11586 bias_term: false } }";

  // The messages are built from inside out, without their last field's bytes: a hole in the file.
  const auto open_field = [](int number, const std::string& head, std::uint64_t hole) {
    const std::string tag_and_size = VarintField(number, head.size() + hole);
    return std::string(1, static_cast<char>(tag_and_size[0] | 2)) + tag_and_size.substr(1) + head;
  };
  const std::string shape = BytesField(7, VarintField(1, kSide) + VarintField(1, kSide));
  const std::string blob = open_field(7, shape + open_field(5, "", kBytes), kBytes);
  const std::string layer = BytesField(1, "prob") + BytesField(2, "InnerProduct") +
                            BytesField(3, "data") + BytesField(4, "prob") +
                            BytesField(117, VarintField(1, kSide) + VarintField(2, 0)) + blob;
  const std::string binary =
      WriteFile("half-a-gigabyte", BytesField(3, "data") + open_field(100, layer, kBytes));
  struct stat head = {};
  ASSERT_EQ(stat(binary.c_str(), &head), 0);
  ASSERT_EQ(truncate(binary.c_str(), head.st_size + static_cast<off_t>(kBytes)), 0);
  const std::string text = WriteFile("net.prototxt", prototxt);

  const long pair = PeakOf([&] { return !::cv::dnn::readNetFromCaffe(text, binary).empty(); });
  const long single = PeakOf([&] { return !ReadCaffeBinary(binary).empty(); });
  unlink(binary.c_str());
  RecordProperty("pair_kib", static_cast<int>(pair));
  RecordProperty("single_kib", static_cast<int>(single));
  EXPECT_GT(pair, static_cast<long>(kBytes / 1024));
  EXPECT_GT(single, static_cast<long>(kBytes / 1024));
  EXPECT_LT(single, pair + static_cast<long>(kBytes / 1024) / 16);
}

}  // namespace
}  // namespace velmora::plugin::network::compat
