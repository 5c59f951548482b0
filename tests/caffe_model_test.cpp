#include "caffe/caffe_model.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "caffe_format.h"
#include "support/caffe_writer.h"
#include "support/machine.h"

namespace velmora::plugin::network::guards {
namespace {

namespace pb = ::google::protobuf;
using test::BytesField;
using test::VarintField;

class CaffeModelTest : public testing::Test {
 protected:
  void SetUp() override { test::NewMachine(); }
};

std::string WriteFile(const std::string& name, const std::string& bytes) {
  std::ofstream(name, std::ios::binary) << bytes;
  return name;
}

::cv::Mat Output(::cv::dnn::Net net) {
  net.setInput(::cv::Mat(std::vector<int>{1, 3, 1, 1}, CV_32F, ::cv::Scalar(0.5)), "data");
  return net.forward("prob").clone();
}

::cv::dnn::Net Pair(const std::string& prototxt, const std::string& weights) {
  return ReadCaffePair(WriteFile("net.prototxt", prototxt), WriteFile("net.caffemodel", weights));
}

::cv::dnn::Net Binary(const std::string& bytes) {
  return ReadCaffeBinary(WriteFile("net.binary", bytes));
}

// ---- the format --------------------------------------------------------------------------------

/// The lines of a message's definition, without what makes no difference.
std::set<std::string> Definition(const pb::Descriptor& message) {
  static const std::regex immaterial(R"( \[.*\]|\.(opencv_|velmora\.)caffe\.)");
  std::istringstream text(std::regex_replace(message.DebugString(), immaterial, ""));
  std::set<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.insert(line);
  }
  return lines;
}

// A field that we take for another than OpenCV would be lost between the two without a word, and
// one that a rule is about must not be passed over, wherever it stands.
TEST_F(CaffeModelTest, TheFormatIsTheOneThatOpenCvReads) {
  const pb::DescriptorPool* pool_of_theirs = pb::DescriptorPool::generated_pool();
  const pb::Descriptor* net = pool_of_theirs->FindMessageTypeByName("opencv_caffe.NetParameter");
  if (net == nullptr) {
    GTEST_SKIP() << "this OpenCV has a protobuf library of its own";
  }
  pb::FileDescriptorSet files;
  ASSERT_TRUE(files.ParseFromArray(kCaffeFormat, sizeof kCaffeFormat));
  pb::DescriptorPool pool;
  const pb::FileDescriptor& ours = *pool.BuildFile(files.file(0));
  const std::set<std::string> ruled = {
      "axis",       "dilation", "group", "kernel_h", "kernel_size", "kernel_w",     "kernelsize",
      "num_output", "order",    "pad",   "pad_h",    "pad_w",       "post_nms_topn"};
  for (int i = 0; i < net->file()->message_type_count(); ++i) {
    const pb::Descriptor& theirs = *net->file()->message_type(i);
    const pb::Descriptor* const same = ours.FindMessageTypeByName(theirs.name());
    if (same != nullptr) {
      EXPECT_THAT(Definition(theirs), testing::IsSupersetOf(Definition(*same)));
    }
    for (int k = 0; k < theirs.field_count(); ++k) {
      const std::string& name = theirs.field(k)->name();
      const bool is_ours = same != nullptr && same->FindFieldByName(name) != nullptr;
      EXPECT_TRUE(is_ours || !ruled.contains(name)) << theirs.name() << "." << name;
    }
  }
}

// ---- what is refused, and what is not ----------------------------------------------------------

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
  for (const std::uint64_t dim : dims) {
    shape += VarintField(1, dim);
  }
  return BytesField(7, shape);
}

// 1 to 6 in single and in half precision.
const std::string kFloats("\0\0\x80\x3f\0\0\0\x40\0\0\x40\x40\0\0\x80\x40\0\0\xa0\x40\0\0\xc0\x40",
                          24);
const std::string kHalves("\0\x3c\0\x40\0\x42\0\x44\0\x45\0\x46", 12);
const std::string kBlob = Shape({2, 3}) + BytesField(5, kFloats);

// clang-format off
TEST_F(CaffeModelTest, SoundFilesAreReadWhateverElseIsInThem) {
  const std::string group = "\x4b\x0a\x02xx\x4c";  // a field of a group of its own
  const std::string junk(5U << 20, 'j');
  const std::string data = BytesField(5, kFloats);
  const std::string liar = BytesField(7, Shape({641, 6700417}) + data);
  const struct {
    const char* what;
    std::string bytes;
    bool is_one_file = true;  // as well as the weights of a pair
  } files[] = {
      {"fields that the format lacks",
       OneLayer(kBlob + BytesField(77, junk) + BytesField(7, VarintField(2, 1)),
                VarintField(99, 1) + BytesField(98, junk), BytesField(999, junk),
                VarintField(7, 1) + BytesField(55, "text"))},
      {"values that their enumerations lack", OneLayer(kBlob, "", VarintField(10, 9))},
      {"groups", OneLayer(kBlob + group, group, group)},
      {"what stands behind a zero", OneLayer(kBlob, std::string(1, '\0') + "rest")},
      {"a description of 5 MiB", OneLayer(kBlob, BytesField(3, junk))},
      {"some values packed", OneLayer("\x2d" + kFloats.substr(0, 4) + Shape({2, 3}) +
       BytesField(5, kFloats.substr(4, 4)) + BytesField(5, kFloats.substr(8)))},
      {"an old shape", OneLayer(VarintField(1, 2) + VarintField(2, 3) + VarintField(3, 1) +
       VarintField(4, 1) + data)},
      {"raw floats", OneLayer(Shape({2, 3}) + VarintField(10, 1) + BytesField(12, kFloats))},
      {"raw halves", OneLayer(Shape({2, 3}) + VarintField(10, 2) + BytesField(12, kHalves))},
      {"a layer that the description lacks", OneLayer(kBlob) + BytesField(100,
       BytesField(1, "other") + BytesField(2, "Data") + liar), false},
  };
  const ::cv::Mat expected = (::cv::Mat_<float>(1, 2) << 3, 7.5);
  for (const auto& [what, bytes, is_one_file] : files) {
    EXPECT_EQ(0, ::cv::norm(expected, Output(Pair(kPrototxt, bytes)))) << what;
    EXPECT_EQ(0, is_one_file ? ::cv::norm(expected, Output(Binary(bytes))) : 0) << what;
  }
}
// clang-format on

TEST_F(CaffeModelTest, ARefusalSaysWhichFileAndWhy) {
  const std::string fifo = "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string text = WriteFile("text", kPrototxt);
  std::string layers;
  for (int i = 0; i <= 100'000; ++i) {
    layers += BytesField(100, "");
  }
  const struct {
    std::string path;
    const char* reason;
  } files[] = {
      {"missing", "No such file or directory"},
      {".", "not a regular file"},
      {fifo, "not a regular file"},
      {text, "not a binary Caffe model"},
      {WriteFile("cut", OneLayer(kBlob).substr(0, 40)), "not a binary Caffe model"},
      {WriteFile("weights", BytesField(100, BytesField(7, kBlob))), "weights of a pair"},
      {WriteFile("oldest", BytesField(2, BytesField(2, "data") + BytesField(1, VarintField(3, 1)))),
       "the oldest form"},
      {WriteFile("partial", OneLayer(kBlob, "", BytesField(10002, ""))),
       "layer[0].psroi_pooling_param.spatial_scale"},
      {WriteFile("large", OneLayer(kBlob, BytesField(1, std::string(17U << 20, 'n')))), "16 MiB"},
      {WriteFile("layers", layers), "100,000 layers"},
  };
  for (const auto& [path, reason] : files) {
    EXPECT_TRUE(ReadCaffeBinary(path).empty()) << path;
    EXPECT_THAT(RefusalOfCaffeBinary(path),
                testing::AllOf(testing::StartsWith(path + ": "), testing::HasSubstr(reason)));
  }
  std::string text_of_layers;
  for (int i = 0; i < 50'000; ++i) {
    text_of_layers += "layer{}layer<>";
  }
  const auto is_too_much = [](const std::string& description) {
    return RefusalOfCaffePair(WriteFile("description", description), "")
               .find("16 MiB, or 100,000") != std::string::npos;
  };
  EXPECT_FALSE(is_too_much(text_of_layers));
  EXPECT_TRUE(is_too_much(text_of_layers + "layer{}"));
  EXPECT_TRUE(is_too_much(std::string(17U << 20, '#')));
  EXPECT_EQ(fifo + ": not a regular file", RefusalOfCaffePair(fifo, "missing"));
  EXPECT_EQ(fifo + ": not a regular file", RefusalOfCaffePair(text, fifo));
  EXPECT_THROW(ReadCaffePair("missing", "missing"), ::cv::Exception);
  EXPECT_THROW(ReadCaffePair(text, "missing"), ::cv::Exception);
  EXPECT_THROW(Pair(kPrototxt, OneLayer(kBlob).substr(0, 9)), ::cv::Exception);
  for (const auto& dims : std::vector<std::vector<std::uint64_t>>{{}, {1, 7}, {0, 3}, {1U << 31}}) {
    EXPECT_THROW(Binary(OneLayer(Shape(dims) + BytesField(5, kFloats))), ::cv::Exception);
  }
}

TEST_F(CaffeModelTest, LooksAtAModelWithoutLoadingItsWeights) {
  const std::string values = BytesField(5, std::string(std::size_t{32} << 20, '\0'));
  WriteFile("large", OneLayer(Shape({2, 3}) + values, "", "", VarintField(1, 0)));
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit before = {};
  getrlimit(RLIMIT_AS, &before);
  const rlim_t now = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
  const rlimit little = {now + (rlim_t{24} << 20), before.rlim_max};
  if (!VELMORA_IS_SANITIZED) {
    setrlimit(RLIMIT_AS, &little);
  }
  const std::string refusal = RefusalOfCaffeBinary("large");
  setrlimit(RLIMIT_AS, &before);
  EXPECT_THAT(refusal, testing::HasSubstr("num_output is 0"));
}

// clang-format off
TEST_F(CaffeModelTest, ARefusalSaysWhichLayerAndWhy) {
  const std::string empty = Shape({0, 3}) + VarintField(10, 1) + BytesField(12, "");
  const std::string x = "layer { name: 'x' bottom: 'data' top: 'prob' ";
  const std::string twice = "type: 'BatchNorm' batch_norm_param { use_global_stats: false } } ";
  const struct {
    std::string layers;
    const char* reason;
    std::string blob = kBlob;  // of the weights, of layer x
  } models[] = {
      {x + "type: 'Convolution' embed_param { num_output: 0 } }", "num_output is 0"},
      {x + "type: 'Deconvolution' convolution_param { num_output: 0 } }", "num_output is 0"},
      {x + "type: 'ReLU' convolution_param { group: 0 } }", "group is 0, which must be 1 to"},
      {x + "type: 'Convolution' convolution_param { kernel_size: 3 dilation: 2147483647 } }",
       "dilation is 2147483647, kernel_size is 3, too large together"},
      {x + "type: 'Convolution' convolution_param { pad: 2147483647 } }", "pad is"},
      {x + "type: 'Pooling' pooling_param { kernel_h: 65536 kernel_w: 65537 } }", "for an area"},
      {x + "type: 'Pooling' pooling_param { kernel_size: 2147483647 } }", "for an area"},
      {x + "type: 'Permute' permute_param { order: [0, 2] } }", "order is 2, which must be 0 to 1"},
      {x + "type: 'Scale' scale_param { axis: -1 } }", "axis is -1, which must be 0 to 31"},
      {x + "type: 'Softmax' softmax_param { axis: 32 } }", "axis is 32, which must be -31 to 31"},
      {x + "type: 'Proposal' proposal_param { post_nms_topn: 2147483648 } }", "post_nms_topn"},
      {x + "type: 'CumSum' }", "has no axis"},
      {x + "type: 'LRN' bottom: 'data' }", "has 2 bottoms, of at most 1"},
      {x + "type: 'Silence' top: 'more' }", "has 2 tops"},
      {x + "type: 'GRU' }", "has 1 blob of weights, and needs 3"},
      {x + twice, "has 1 blob of weights, and needs 2"},
      // Blobs are found by the name of their layer, and once.
      {x + "type: 'ReLU' } " + x + "type: 'Deconvolution' }", "has 0 blobs"},
      {x + "type: 'Convolution' }", "has no values in blob 0", empty},
      {x + "type: 'Deconvolution' }", "has no values in blob 0", empty},
      {x + "type: 'ConvolutionDepthwise' }", "has no values in blob 0", empty},
      {x + "type: 'ReLU' }", "claims more values in blob 0",  // one of them in 32 bits
       Shape({641, 6700417}) + BytesField(5, kFloats.substr(20))},
      {x + "type: 'ReLU' }", "claims more values in blob 0",  // six of them in 64 bits
       Shape({2112351278, 998034439, 35}) + BytesField(5, kFloats)},
      {"layer { name: 'x' type: 'Shift' }", "layer \"x\" (Shift) has no bottom"},
      {"layer { name: 'x' type: 'ReshapeInt8' }", "layer \"x\" (ReshapeInt8) has no bottom"},
      {"layers { name: 'x' type: MEMORY_DATA }", "(MEMORY_DATA) reads nothing"},
      {"layer { name: 'two\\nlines' type: 'AnnotatedData' include { phase: TRAIN } }",
       "layer \"two?lines\" (AnnotatedData) reads nothing, and OpenCV has no layer of this type"},
  };
  for (const auto& [layers, reason, blob] : models) {
    const std::string text = WriteFile("net.prototxt", "input: 'data' " + layers);
    const std::string weights =
        WriteFile("net.caffemodel", BytesField(100, BytesField(1, "x") + BytesField(7, blob)));
    EXPECT_TRUE(ReadCaffePair(text, weights).empty()) << layers;
    EXPECT_THAT(RefusalOfCaffePair(text, weights), testing::HasSubstr(reason)) << layers;
  }
  const std::string wide = x + "type: 'InnerProduct' inner_product_param { num_output: 40000 } }";
  EXPECT_EQ("", RefusalOfCaffePair(WriteFile("wide", wide), ""));
}
// clang-format on

}  // namespace
}  // namespace velmora::plugin::network::guards
