#include <dlfcn.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <reelhouse/trans_loading.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <time.h>
#include <velmora/plugin/network/ie_network.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <openvino/openvino.hpp>
#include <openvino/opsets/opset8.hpp>

#include "support/network.h"
#include "support/own_folder.h"
#include "support/own_namespace.h"
#include "support/platform_stand_in.h"

namespace {

std::int64_t clock_at = 0;  // nanoseconds at which the monotonic clock stands; 0 for the real one
std::function<void()> when_the_clock_is_read;  // once, by the test's own thread

}  // namespace

// In the place of the C library's: time passes as a test wants.
extern "C" int clock_gettime(clockid_t id, timespec* time) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(id, time);
  if (id == CLOCK_MONOTONIC && clock_at != 0) {
    if (when_the_clock_is_read && gettid() == getpid()) {
      std::exchange(when_the_clock_is_read, nullptr)();
    }
    *time = {clock_at / 1'000'000'000, clock_at % 1'000'000'000};
  }
  return result;
}

namespace velmora::plugin::network {
namespace {

namespace op = ov::opset8;
using test::Ramp;

constexpr const char* kModels = "/var/packages/Velmora/target/models";

/// What the backend wrote to the log: "PRIORITY MESSAGE; ...".
std::string TakeLog() {
  std::string log;
  for (const test::SyslogLine& line : test::TakeSyslog()) {
    if (const std::size_t text = line.text.find("[IeNetwork] "); text != std::string::npos) {
      log += std::to_string(line.priority) + line.text.substr(text + 11) + "; ";
    }
  }
  return log;
}

class IeNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    // The model cache's folder, an empty one; without it each load logs a line.
    ASSERT_TRUE(test::PlaceFile(std::string(kModels) + "/.keep", ""));
    ASSERT_EQ(0, mount("none", kModels, "tmpfs", 0, nullptr));
    std::filesystem::current_path("/tmp");
  }
};

std::shared_ptr<op::Parameter> Input(const std::string& name, const ov::PartialShape& shape,
                                     ov::element::Type type = ov::element::f32) {
  auto input = std::make_shared<op::Parameter>(type, shape);
  input->set_friendly_name(name);
  return input;
}

/// An operation whose output has a name.
template <typename Operation, typename... Args>
std::shared_ptr<Operation> Named(const std::string& name, const Args&... args) {
  auto operation = std::make_shared<Operation>(args...);
  operation->set_friendly_name(name);
  return operation;
}

std::shared_ptr<op::Constant> Whole(const std::vector<std::int64_t>& numbers) {
  return op::Constant::create(ov::element::i64, {numbers.size()}, numbers);
}

/// Writes an IR pair, NAME.xml and NAME.bin, in the current folder.
void Write(const std::string& name, const ov::OutputVector& outputs,
           const ov::ParameterVector& inputs) {
  ov::serialize(std::make_shared<ov::Model>(outputs, inputs), name + ".xml", name + ".bin");
}

NetworkConfig Config(std::uint32_t batch_size, const std::vector<std::string>& output_names) {
  NetworkConfig config;
  config.output_names = output_names;
  config.ie_cpu_xml_path = "cpu.xml";
  config.ie_cpu_bin_path = "cpu.bin";
  config.ie_gpu_xml_path = "gpu.xml";
  config.ie_gpu_bin_path = "gpu.bin";
  config.batch_size = batch_size;
  return config;
}

/// A network that computes "out" as 2 * "data" + 1 on the CPU and as 3 * "data" + 1 on the GPU.
NetworkConfig Scale(std::uint32_t batch_size, const ov::PartialShape& shape = {1, 3, 2, 2}) {
  for (const float factor : {2.0F, 3.0F}) {
    const auto constant = [](float value) {
      return op::Constant::create(ov::element::f32, {}, {value});
    };
    const auto input = Input("data", shape);
    const auto scaled = std::make_shared<op::Multiply>(input, constant(factor));
    Write(factor == 2 ? "cpu" : "gpu", {Named<op::Add>("out", scaled, constant(1))}, {input});
  }
  return Config(batch_size, {"out"});
}

/// What it makes of a Ramp().
std::vector<float> Expected(int pixels, int channels, float factor, float first = 0) {
  std::vector<float> values;
  for (int c = 0; c < channels; ++c) {
    for (int p = 0; p < pixels; ++p) {
      values.push_back(factor * (first + static_cast<float>(p * channels + c)) + 1);
    }
  }
  return values;
}

TEST_F(IeNetworkTest, RunsInBatchesAndLeavesNoSlotStale) {
  setenv("OCL_ICD_VENDORS", "/etc/OpenCL/vendors", 1);
  struct : IeNetwork {
    using IeNetwork::config_, IeNetwork::IeNetwork;
  } network(Scale(4));
  EXPECT_EQ("gpu /var/packages/Velmora/target/usr/lib/intel.icd", test::TakeQuestions());
  std::vector<cv::Mat> images;
  for (int i = 0; i < 7; ++i) {
    images.push_back(Ramp(2, 2, 3, static_cast<float>(100 * i)));
  }
  const std::vector<OutputMap> results = network.Forward(images);
  ASSERT_EQ(7U, results.size());
  for (std::size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(Expected(4, 3, 2, static_cast<float>(100 * i)), results[i].at("out"));
  }
  // One image in a batch of four: its own values first, then those of images of zeros.
  std::vector<float> single = Expected(4, 3, 2, 600);
  single.resize(48, 1);
  EXPECT_EQ(single, network.Forward(images[6]).at("out"));
  network.Forward(images);
  network.ForwardAsync(images[6]);
  EXPECT_EQ(single, network.WaitOutput().at("out"));
  // The settings are those of the call.
  network.config_.batch_size = 2;
  EXPECT_EQ(24U, network.Forward(images)[6].at("out").size());
  network.config_.output_names.clear();
  EXPECT_EQ(OutputMap(), network.Forward(images[6]));
}

TEST_F(IeNetworkTest, LaysChannelsOutInPlanes) {
  // The last is copied in three blocks.
  const int cases[][3] = {{5, 7, 1}, {5, 7, 2}, {5, 7, 3}, {5, 7, 4}, {5, 7, 5}, {20, 31, 3}};
  for (const auto& [rows, cols, channels] : cases) {
    const ov::PartialShape shape = {1, channels, rows, cols};
    EXPECT_EQ(Expected(rows * cols, channels, 2),
              IeNetwork(Scale(1, shape)).Forward(Ramp(rows, cols, channels)).at("out"))
        << rows << " " << channels;
  }
}

/// Outputs of all kinds, of an image "a" of 4 x 2 pixels; and an input "b" that nothing feeds. Its
/// Reshapes hold the batch that the model is made for.
std::shared_ptr<ov::Model> Zoo(const ov::PartialShape& shape, ov::element::Type type,
                               const ov::PartialShape& other) {
  const auto a = Input("a", shape, type);
  const auto b = Input("b", other);
  const auto image = std::make_shared<op::Convert>(a, ov::element::f32);
  const auto add = std::make_shared<op::Add>(image, image);
  const auto made_for = Whole({shape[0].is_static() ? shape[0].get_length() : 0, 3, -1});
  const auto heads =
      Named<op::Concat>("the.heads",
                        ov::OutputVector{std::make_shared<op::Reshape>(image, made_for, true),
                                         std::make_shared<op::Reshape>(add, made_for, true)},
                        1);
  const auto channel = op::Constant::create(ov::element::i64, {}, {1});
  const auto split = Named<op::Split>("split", image, channel, 3);
  split->output(2).set_names({"a_tensor"});
  const auto row = Named<op::ReduceSum>("row", image, Whole({1, 2, 3}));
  const auto whole = Named<op::Convert>("whole", image, ov::element::i64);
  const auto scalar = Named<op::ReduceMax>("scalar", image, Whole({0, 1, 2, 3}));
  const ov::OutputVector outputs = {
      heads, split->output(2), row, scalar, whole, std::make_shared<op::Relu>(b)};
  return std::make_shared<ov::Model>(outputs, ov::ParameterVector{b, a});
}

TEST_F(IeNetworkTest, RunsWhatTheEngineRuns) {
  const auto model = Zoo({1, 3, 4, 2}, ov::element::f32, {1});
  const ov::AnyMap in_32_bits = {ov::hint::inference_precision(ov::element::f32)};
  ov::InferRequest alone =
      ov::Core().compile_model(model, "CPU", in_32_bits).create_infer_request();
  std::vector<cv::Mat> images;
  std::vector<OutputMap> expected(3);
  for (OutputMap& result : expected) {
    const auto first = static_cast<float>(50 * images.size());
    images.push_back(Ramp(4, 2, 3, first));
    result["whole"] = Expected(8, 3, 1, first - 1);
    alone.set_input_tensor(1, {ov::element::f32, {1, 3, 4, 2}, result["whole"].data()});
    alone.infer();
    for (const char* const name : {"the.heads", "split.2", "row", "scalar"}) {
      const ov::Tensor tensor = alone.get_output_tensor(result.size() - 1);  // in this order
      result[name] = {tensor.data<float>(), tensor.data<float>() + tensor.get_size()};
    }
    result["a_tensor"] = result["split.2"];
  }

  struct Case {
    const char* about;
    ov::PartialShape a, b;
    ov::element::Type type;
    std::uint32_t batch, width, height;
    std::size_t values_of_b;  // for each image
  };
  using ov::element::f16, ov::element::f32, ov::element::u8;
  const ov::Dimension open;
  for (const Case& each : {
           Case{"as it is", {1, 3, 4, 2}, {5, 2}, f32, 1, 0, 0, 10},
           Case{"one side alone changes nothing", {1, 3, 4, 2}, {5, 2}, f32, 1, 0, 9, 10},
           Case{"the batch is there already", {2, 3, 4, 2}, {6, 2}, f32, 2, 0, 0, 6},
           Case{"a batch in proportion", {1, 3, 4, 2}, {5, 2}, f32, 2, 0, 0, 10},
           Case{"a smaller batch, rounded up", {4, 3, 4, 2}, {7, 2}, f32, 2, 0, 0, 4},
           Case{"another size", {1, 3, 5, 5}, {3}, f32, 2, 2, 4, 3},
           Case{"open batches", {open, 3, 4, 2}, {open, 2}, f32, 2, 0, 0, 2},
           Case{"open height and width", {1, 3, open, open}, {1, 2}, f32, 1, 2, 4, 2},
           Case{"all of it open", {open, 3, open, open}, {open, open}, f32, 2, 2, 4, 0},
           Case{"16 bits", {1, 3, 4, 2}, {}, f16, 1, 0, 0, 1},
           Case{"8 bits", {1, 3, 4, 2}, {2, 3, 4}, u8, 2, 0, 0, 24},
       }) {
    SCOPED_TRACE(each.about);
    NetworkConfig config =
        Config(each.batch, {"the.heads", "split.2", "a_tensor", "row", "whole", "b", "scalar"});
    config.input_width = each.width;
    config.input_height = each.height;
    config.output_names.resize(each.batch == 1 ? 7 : 6);  // one value is not for two images
    for (const auto version :
         {ov::pass::Serialize::Version::IR_V10, ov::pass::Serialize::Version::IR_V11}) {
      ov::serialize(Zoo(each.a, each.type, each.b), "cpu.xml", "cpu.bin", version);
      const std::vector<OutputMap> results = IeNetwork(config).Forward(images);
      for (std::size_t i = 0; i < images.size(); ++i) {
        expected[i]["b"] = std::vector<float>(each.values_of_b);
        for (const std::string& name : config.output_names) {
          EXPECT_EQ(expected[i].at(name), results[i].at(name)) << name;
        }
      }
      TakeLog();  // or the log fills up
    }
  }
}

TEST_F(IeNetworkTest, RefusesWhatDoesNotFit) {
  const cv::Mat wide = Ramp(2, 4, 3);
  const auto error = [&](const ov::PartialShape& shape, std::uint32_t height = 0,
                         std::uint32_t width = 0, const cv::Mat& image = Ramp(2, 4, 3)) {
    NetworkConfig config = Scale(1, shape);
    config.input_height = height;
    config.input_width = width;
    const std::string text = test::ErrorOf([&] { IeNetwork(config).Forward(image); });
    return text.substr(text.find(' ') + 1);
  };
  EXPECT_EQ("none", error({1, 3, 2, 2}));  // what is left over is no harm
  EXPECT_EQ("none", error({1, 3, 2, 2}, 0, 0, Ramp(2, 6, 1)));
  EXPECT_EQ("An image must be continuous 32-bit floats of at least the input's size",
            error({1, 3, 2, 2}, 0, 0, wide.colRange(0, 2)));
  EXPECT_EQ("The image has other channels than the input", error({1, 2, 4, 3}));  // N, H, W, C
  EXPECT_EQ("The input does not take images", error({1, 12}));
  EXPECT_EQ("The input does not take images", error({1, 3, 2, 2, 1}));
  EXPECT_EQ("An input of fewer than four dimensions cannot be reshaped", error({1, 12}, 2, 2));
  const std::string open = "The input leaves sizes open: set both input_width and input_height";
  EXPECT_EQ(open, error({1, 3, -1, -1}));
  EXPECT_EQ(open, error({1, 3, -1, -1}, 2, 0));
  EXPECT_EQ(open, error({1, -1, 2, 2}, 2, 2));
  EXPECT_EQ("[IeNetwork] The batch size must not be 0",
            test::ErrorOf([] { IeNetwork network(Scale(0)); }));
  EXPECT_ANY_THROW(IeNetwork(Config(1, {"missing"})).Forward(wide));
  const auto a = Input("a", {1, 3, 2, 2});
  const auto b = Input("b", {1}, ov::element::i8);  // which is not fed and keeps its type
  Write("cpu", {std::make_shared<op::Relu>(a), std::make_shared<op::Relu>(b)}, {a, b});
  EXPECT_EQ("[IeNetwork] An output must be 32-bit floats",
            test::ErrorOf([&] { IeNetwork(Config(1, {"b"})).Forward(wide); }));
  Write("cpu", {std::make_shared<op::Relu>(Whole({1}))}, {});
  EXPECT_EQ("[IeNetwork] The model has no input",
            test::ErrorOf([] { IeNetwork network(Config(1, {})); }));
}

// ---- moving between the devices ----------------------------------------------------------------

/// Another process that transcodes with hardware until it is stopped. It is killed then, and its
/// entry stays in the record for others to drop.
pid_t StartTranscode() {
  const pid_t process = test::StartChild([] {
    LibReelhouse::TransLoading().SaveTransPID(getpid(), true, false);
    raise(SIGSTOP);
  });
  waitpid(process, nullptr, WUNTRACED);  // until it is in the record
  return process;
}

void StopTranscode(pid_t process) {
  kill(process, SIGKILL);
  EXPECT_EQ(-SIGKILL, test::EndOf(process));
}

constexpr std::int64_t kMinute = 60'000'000'000;

class IeDeviceTest : public IeNetworkTest {
 protected:
  void SetUp() override {
    IeNetworkTest::SetUp();
    setenv("VELMORA_TEST_PLATFORM", "gpu", 1);  // a stand-in that the machine's would not find
    clock_at = 1'000 * kMinute;
  }

  const cv::Mat image_ = Ramp(2, 2, 3);
  const std::vector<float> from_cpu_ = Expected(4, 3, 2);
  const std::vector<float> from_gpu_ = Expected(4, 3, 3);
};

TEST_F(IeDeviceTest, LeavesTheGpuAtOnceAndReturnsAfterAQuietMinute) {
  IeNetwork network(Scale(1));
  EXPECT_TRUE(network.ShouldExitAfterShutdown());
  const auto out = [&] { return network.Forward(image_).at("out"); };
  EXPECT_EQ(from_gpu_, out());
  EXPECT_EQ("142 Init network, device: GPU; ", TakeLog());

  pid_t transcode = StartTranscode();
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ("142 Init network, device: CPU; 143 Switch device from GPU to CPU; ", TakeLog());

  // A transcode in the middle of the wait makes it start again.
  StopTranscode(transcode);
  EXPECT_EQ(from_cpu_, out());
  transcode = StartTranscode();
  clock_at += kMinute;
  EXPECT_EQ(from_cpu_, out());
  StopTranscode(transcode);
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ("143 Start waiting for gpu; 143 Start waiting for gpu; ", TakeLog());

  // Each way to run an image looks, and fetching its result does not.
  clock_at += kMinute - 1;
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ(from_cpu_, network.Forward(std::vector<cv::Mat>(2, image_))[1].at("out"));
  network.ForwardAsync(image_);
  EXPECT_EQ("143 Waiting time diff: 59; 143 Waiting time diff: 59; 143 Waiting time diff: 59; ",
            TakeLog());
  clock_at += 1;
  EXPECT_EQ(from_cpu_, network.WaitOutput().at("out"));
  when_the_clock_is_read = [&] { transcode = StartTranscode(); };  // at the last moment
  EXPECT_EQ(from_cpu_, out());
  const std::string in_time = "143 Waiting time diff: 60; 142 Init network, device: ";
  EXPECT_EQ(in_time + "CPU; 143 Switch device from CPU to CPU; ", TakeLog());
  StopTranscode(transcode);
  out();
  clock_at += kMinute;
  TakeLog();
  EXPECT_EQ(from_gpu_, out());
  EXPECT_EQ(in_time + "GPU; 143 Switch device from CPU to GPU; ", TakeLog());
}

/// A network that the next call moves back to the GPU.
std::unique_ptr<IeNetwork> AboutToReturn() {
  const pid_t transcode = StartTranscode();
  auto network = std::make_unique<IeNetwork>(Scale(1));
  StopTranscode(transcode);
  network->Forward(std::vector<cv::Mat>());
  clock_at += kMinute;
  TakeLog();
  return network;
}

TEST_F(IeDeviceTest, AFailedSwitchKeepsTheOldRequest) {
  const auto network = AboutToReturn();
  setenv("VELMORA_TEST_GPU_FAILS", "1", 1);
  EXPECT_EQ("[IeNetwork] Init network failed", test::ErrorOf([&] { network->Forward(image_); }));
  EXPECT_EQ("143 Waiting time diff: 60; ", TakeLog());
  // The next decision goes by the new name, and the old request runs.
  EXPECT_EQ(from_cpu_, network->Forward(image_).at("out"));
  EXPECT_EQ("", TakeLog());
  // The wait is over: after another transcode it begins anew.
  const pid_t transcode = StartTranscode();
  network->Forward(image_);
  StopTranscode(transcode);
  TakeLog();
  network->Forward(image_);
  EXPECT_EQ("143 Start waiting for gpu; ", TakeLog());
}

TEST_F(IeDeviceTest, WhatTheEngineSaysAboutAFileIsThrownAsItIs) {
  const auto network = AboutToReturn();
  std::filesystem::remove("gpu.xml");
  EXPECT_THAT([&] { network->Forward(image_); },
              testing::ThrowsMessage<ov::Exception>(testing::HasSubstr("gpu.xml")));
  EXPECT_EQ("GPU", network->GetDevice());
}

TEST_F(IeDeviceTest, NeedsBothFilesForTheGpuAndElseReadsNoRecord) {
  const std::string record = "/tmp/Reelhouse/enabled";
  for (const auto path : {&NetworkConfig::ie_gpu_xml_path, &NetworkConfig::ie_gpu_bin_path}) {
    NetworkConfig config = Scale(1);
    (config.*path).clear();
    IeNetwork network(config);
    EXPECT_FALSE(network.ShouldExitAfterShutdown());
    EXPECT_EQ(from_cpu_, network.Forward(image_).at("out"));
  }
  EXPECT_FALSE(std::filesystem::exists(record));
  IeNetwork network(Scale(1));
  EXPECT_TRUE(std::filesystem::remove(record));
  EXPECT_TRUE(network.Forward(std::vector<cv::Mat>()).empty());
  EXPECT_TRUE(std::filesystem::exists(record));
}

// ---- the model cache ---------------------------------------------------------------------------

TEST_F(IeNetworkTest, LoadsWithoutItsCacheAndSaysSo) {
  namespace fs = std::filesystem;
  const NetworkConfig config = Scale(1);
  const std::string cache = std::string(kModels) + "/openvino_cache";
  const auto reason = [&] {
    EXPECT_EQ(Expected(4, 3, 2), IeNetwork(config).Forward(Ramp(2, 2, 3)).at("out"));
    const std::string log = TakeLog();
    const std::string about_it = "142 No model cache: " + cache + ": ";
    return log.starts_with(about_it) ? log.substr(about_it.size(), log.find(';') - about_it.size())
                                     : "";
  };
  EXPECT_EQ("", reason());
  ASSERT_FALSE(fs::is_empty(cache));
  for (const fs::path& file : std::vector<fs::path>(fs::directory_iterator(cache), {})) {
    fs::resize_file(file, 100);
  }
  EXPECT_EQ("", reason());  // a damaged file is replaced

  // What may not be read, such as another user's files.
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2];
  ASSERT_EQ(0, syscall(SYS_capget, &header, rights));
  rights[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
  ASSERT_EQ(0, syscall(SYS_capset, &header, rights));
  for (const fs::directory_entry& file : fs::directory_iterator(cache)) {
    fs::permissions(file, fs::perms::none);
  }
  EXPECT_EQ("", reason());
  fs::permissions(cache, fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ("Permission denied", reason());

  // A full disk keeps nothing, as some devices do.
  ASSERT_EQ(0, mount("none", cache.c_str(), "tmpfs", 0, "size=4k"));
  std::ofstream(cache + "/fill") << std::string(8192, 'x');
  EXPECT_EQ("", reason());
  ASSERT_EQ(0, mount("none", cache.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ("Read-only file system", reason());
  ASSERT_EQ(0, mount("none", kModels, "tmpfs", MS_RDONLY, nullptr));
  EXPECT_EQ("No such file or directory", reason());  // and none can be made
}

}  // namespace
}  // namespace velmora::plugin::network
