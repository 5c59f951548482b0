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
#include "support/own_namespace.h"
#include "support/processes.h"

namespace {

std::int64_t clock_at = 0;  // nanoseconds at which the monotonic clock stands; 0 for the real one

}  // namespace

// In the place of the C library's: time passes as a test wants.
extern "C" int clock_gettime(clockid_t id, timespec* time) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(id, time);
  if (id == CLOCK_MONOTONIC && clock_at != 0) {
    *time = {clock_at / 1'000'000'000, clock_at % 1'000'000'000};
  }
  return result;
}

namespace velmora::plugin::network {
namespace {

using test::Lines;
using test::Ramp;

constexpr const char* kModels = "/var/packages/Velmora/target/models";

/// The library's own log lines, without their places; those about the model cache, or the others.
Lines TakeLines(bool about_cache = false) {
  Lines lines;
  for (const test::SyslogLine& line : test::TakeSyslog()) {
    const std::size_t text = line.text.find("[IeNetwork]");
    if (text != std::string::npos &&
        (line.text.find("No model cache", text) != std::string::npos) == about_cache) {
      lines.push_back(std::to_string(line.priority) + " " + line.text.substr(text));
    }
  }
  return lines;
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

/// Writes an IR pair, NAME.xml and NAME.bin, in the current folder.
void Write(const std::string& name, const ov::OutputVector& outputs,
           const ov::ParameterVector& inputs) {
  ov::serialize(std::make_shared<ov::Model>(outputs, inputs), name + ".xml", name + ".bin");
}

std::shared_ptr<ov::opset8::Parameter> Input(const std::string& name, const ov::Shape& shape,
                                             ov::element::Type type = ov::element::f32) {
  auto input = std::make_shared<ov::opset8::Parameter>(type, shape);
  input->set_friendly_name(name);
  return input;
}

/// A network that computes "out" as 2 * "data" + 1 on the CPU and as 3 * "data" + 1 on the GPU.
NetworkConfig Scale(std::uint32_t batch_size, const ov::Shape& shape = {1, 3, 2, 2}) {
  for (const float factor : {2.0F, 3.0F}) {
    const auto constant = [](float value) {
      return ov::opset8::Constant::create(ov::element::f32, {}, {value});
    };
    const auto input = Input("data", shape);
    const auto scaled = std::make_shared<ov::opset8::Multiply>(input, constant(factor));
    const auto out = std::make_shared<ov::opset8::Add>(scaled, constant(1));
    out->set_friendly_name("out");
    Write(factor == 2 ? "cpu" : "gpu", {out}, {input});
  }
  NetworkConfig config;
  config.output_names = {"out"};
  config.ie_cpu_xml_path = "cpu.xml";
  config.ie_cpu_bin_path = "cpu.bin";
  config.ie_gpu_xml_path = "gpu.xml";
  config.ie_gpu_bin_path = "gpu.bin";
  config.batch_size = batch_size;
  return config;
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
  IeNetwork network(Scale(4));
  EXPECT_STREQ("/var/packages/Velmora/target/usr/lib/intel.icd", std::getenv("OCL_ICD_VENDORS"));
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
}

TEST_F(IeNetworkTest, LaysChannelsOutInPlanes) {
  // The last is copied in three blocks.
  const int cases[][3] = {{5, 7, 1}, {5, 7, 2}, {5, 7, 3}, {5, 7, 4}, {5, 7, 5}, {20, 31, 3}};
  for (const auto& [rows, cols, channels] : cases) {
    const ov::Shape shape = {1, static_cast<std::size_t>(channels), static_cast<std::size_t>(rows),
                             static_cast<std::size_t>(cols)};
    EXPECT_EQ(Expected(rows * cols, channels, 2),
              IeNetwork(Scale(1, shape)).Forward(Ramp(rows, cols, channels)).at("out"))
        << rows << " " << channels;
  }
}

TEST_F(IeNetworkTest, ReshapesWhenBothSidesAreSet) {
  NetworkConfig config = Scale(1);
  const auto input = Input("data", {1, 1, 2, 2});
  const auto by_row = std::make_shared<ov::opset8::ReduceSum>(
      input, ov::opset8::Constant::create(ov::element::i64, {1}, {3}));
  by_row->set_friendly_name("out");
  Write("cpu", {by_row}, {input});
  config.input_height = 3;
  EXPECT_EQ((std::vector<float>{1, 5}), IeNetwork(config).Forward(Ramp(2, 2, 1)).at("out"));
  config.input_width = 4;
  EXPECT_EQ((std::vector<float>{6, 22, 38}), IeNetwork(config).Forward(Ramp(3, 4, 1)).at("out"));
}

TEST_F(IeNetworkTest, FeedsTheFirstInputAndReadsOutputsByTheirLayersAllInFloats) {
  const auto b = Input("b", {1, 3, 2, 2}, ov::element::f16);
  const auto a = Input("a", {1, 3, 2, 2}, ov::element::f16);
  const auto sum = std::make_shared<ov::opset8::Add>(a, b);
  sum->set_friendly_name("sum");
  const auto split = std::make_shared<ov::opset8::Split>(
      a, ov::opset8::Constant::create(ov::element::i64, {}, {1}), 3);
  split->set_friendly_name("split");
  split->output(2).set_names({"a_tensor"});
  Write("cpu", {sum, split->output(2)}, {b, a});
  NetworkConfig config;
  config.ie_cpu_xml_path = "cpu.xml";
  config.ie_cpu_bin_path = "cpu.bin";
  config.batch_size = 2;  // also for the input that is not fed
  config.output_names = {"sum", "split.2", "a_tensor"};
  const OutputMap result = IeNetwork(config).Forward(std::vector<cv::Mat>{Ramp(2, 2, 3)})[0];
  EXPECT_EQ((std::vector<float>{0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11}), result.at("sum"));
  EXPECT_EQ((std::vector<float>{2, 5, 8, 11}), result.at("split.2"));
  EXPECT_EQ(result.at("split.2"), result.at("a_tensor"));

  config.output_names = {"missing"};
  EXPECT_ANY_THROW(IeNetwork(config).Forward(Ramp(2, 2, 3)));
  config.output_names = {"b"};  // which is not fed and keeps its 16 bits
  EXPECT_EQ("[IeNetwork] An output must be 32-bit floats",
            test::ErrorOf([&] { IeNetwork(config).Forward(Ramp(2, 2, 3)); }));
}

TEST_F(IeNetworkTest, RefusesWhatDoesNotFit) {
  const auto refused = [](const std::function<void()>& call) {
    return test::ErrorOf(call).starts_with("[IeNetwork] ");
  };
  const cv::Mat wide = Ramp(2, 4, 3);
  EXPECT_TRUE(refused([&] { IeNetwork(Scale(1)).Forward(wide.colRange(0, 2)); }));
  // What is left over is no harm, nor are the same floats in one channel.
  for (const cv::Mat& image : {wide, Ramp(2, 6, 1)}) {
    EXPECT_FALSE(refused([&] { IeNetwork(Scale(1)).Forward(image); }));
  }
  // As by a model that takes height, width and channels.
  EXPECT_TRUE(refused([&] { IeNetwork(Scale(1, {1, 2, 2, 3})).Forward(Ramp(2, 2, 3)); }));
  EXPECT_TRUE(refused([] { IeNetwork(Scale(0)).WaitOutput(); }));
  NetworkConfig flat = Scale(1, {1, 12});
  EXPECT_TRUE(refused([&] { IeNetwork(flat).Forward(wide); }));
  flat.input_width = flat.input_height = 2;
  EXPECT_TRUE(refused([&] { IeNetwork(flat).WaitOutput(); }));
  const auto constant = ov::opset8::Constant::create(ov::element::f32, {1, 3}, {1});
  Write("cpu", {std::make_shared<ov::opset8::Relu>(constant)}, {});
  EXPECT_TRUE(refused([&] { IeNetwork(flat).WaitOutput(); }));
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
  EXPECT_EQ(Lines{"142 [IeNetwork] Init network, device: GPU"}, TakeLines());

  pid_t transcode = StartTranscode();
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ((Lines{"142 [IeNetwork] Init network, device: CPU",
                   "143 [IeNetwork] Switch device from GPU to CPU"}),
            TakeLines());

  // A transcode in the middle of the wait makes it start again.
  StopTranscode(transcode);
  EXPECT_EQ(from_cpu_, out());
  transcode = StartTranscode();
  clock_at += kMinute;
  EXPECT_EQ(from_cpu_, out());
  StopTranscode(transcode);
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ(Lines(2, "143 [IeNetwork] Start waiting for gpu"), TakeLines());

  // Each way to run an image looks, and fetching its result does not.
  clock_at += kMinute - 1;
  EXPECT_EQ(from_cpu_, out());
  EXPECT_EQ(from_cpu_, network.Forward(std::vector<cv::Mat>{image_})[0].at("out"));
  network.ForwardAsync(image_);
  EXPECT_EQ(Lines(3, "143 [IeNetwork] Waiting time diff: 59"), TakeLines());
  clock_at += 1;
  EXPECT_EQ(from_cpu_, network.WaitOutput().at("out"));
  EXPECT_EQ(from_gpu_, out());
  EXPECT_EQ(
      (Lines{"143 [IeNetwork] Waiting time diff: 60", "142 [IeNetwork] Init network, device: GPU",
             "143 [IeNetwork] Switch device from CPU to GPU"}),
      TakeLines());
}

TEST_F(IeDeviceTest, AFailedSwitchKeepsTheOldRequest) {
  const pid_t transcode = StartTranscode();
  IeNetwork network(Scale(1));
  EXPECT_TRUE(network.ShouldExitAfterShutdown());
  StopTranscode(transcode);
  network.Forward(image_);
  clock_at += kMinute;
  setenv("VELMORA_TEST_GPU_FAILS", "1", 1);
  TakeLines();
  EXPECT_EQ("[IeNetwork] Init network failed", test::ErrorOf([&] { network.Forward(image_); }));
  EXPECT_EQ(Lines{"143 [IeNetwork] Waiting time diff: 60"}, TakeLines());
  // The next decision goes by the new name, and the old request runs.
  EXPECT_EQ(from_cpu_, network.Forward(image_).at("out"));
  EXPECT_TRUE(TakeLines().empty());
}

TEST_F(IeDeviceTest, NeedsBothFilesForTheGpu) {
  for (const auto path : {&NetworkConfig::ie_gpu_xml_path, &NetworkConfig::ie_gpu_bin_path}) {
    NetworkConfig config = Scale(1);
    (config.*path).clear();
    IeNetwork network(config);
    EXPECT_FALSE(network.ShouldExitAfterShutdown());
    EXPECT_EQ(from_cpu_, network.Forward(image_).at("out"));
  }
}

// ---- the model cache ---------------------------------------------------------------------------

TEST_F(IeNetworkTest, LoadsWithoutItsCacheAndSaysSo) {
  namespace fs = std::filesystem;
  const NetworkConfig config = Scale(1);
  const std::string cache = std::string(kModels) + "/openvino_cache";
  const auto lines_about_cache = [&] {
    EXPECT_EQ(Expected(4, 3, 2), IeNetwork(config).Forward(Ramp(2, 2, 3)).at("out"));
    return TakeLines(true).size();
  };
  const auto for_each_file = [&](const std::function<void(const fs::path&)>& change) {
    for (const fs::path& file : std::vector<fs::path>(fs::directory_iterator(cache), {})) {
      change(file);
    }
  };
  EXPECT_EQ(0U, lines_about_cache());
  EXPECT_FALSE(fs::is_empty(cache));
  EXPECT_EQ(0U, lines_about_cache());  // now from the cache

  for_each_file([](const fs::path& file) { fs::resize_file(file, 100); });
  EXPECT_EQ(1U, lines_about_cache());
  EXPECT_EQ(0U, lines_about_cache());  // mended

  // What may not be read, such as another user's files.
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2];
  ASSERT_EQ(0, syscall(SYS_capget, &header, rights));
  rights[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
  ASSERT_EQ(0, syscall(SYS_capset, &header, rights));
  for_each_file([](const fs::path& file) { fs::permissions(file, fs::perms::none); });
  fs::permissions(cache, fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(1U, lines_about_cache());

  ASSERT_EQ(0, mount("none", cache.c_str(), "tmpfs", 0, "size=4k"));
  std::ofstream(cache + "/fill") << std::string(8192, 'x');
  EXPECT_EQ(1U, lines_about_cache());
  ASSERT_EQ(0, mount("none", cache.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(1U, lines_about_cache());
  // Now the folder cannot be made.
  ASSERT_EQ(0, mount("none", kModels, "tmpfs", MS_RDONLY, nullptr));
  EXPECT_EQ(1U, lines_about_cache());
}

}  // namespace
}  // namespace velmora::plugin::network
