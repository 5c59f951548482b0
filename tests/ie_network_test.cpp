#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <reelhouse/trans_loading.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <velmora/plugin/network/ie_network.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <opencv2/core.hpp>
#include <openvino/openvino.hpp>
#include <openvino/opsets/opset8.hpp>
#include <optional>

#include "support/own_namespace.h"
#include "support/sample_model.h"

namespace {

bool machine_has_gpu = false;
std::int64_t clock_at = 0;  // nanoseconds at which the monotonic clock stands; 0 for the real one

}  // namespace

// In the place of the platform library's: the stand-in GPU is none that it would find.
namespace velmora::plugin::platform {
bool IsSupportedIENetworkGpu() { return machine_has_gpu; }
}  // namespace velmora::plugin::platform

// In the place of the C library's: time passes as a test wants.
extern "C" int clock_gettime(clockid_t id, timespec* time) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(id, time);
  if (id == CLOCK_MONOTONIC && clock_at != 0) {
    time->tv_sec = clock_at / 1'000'000'000;
    time->tv_nsec = clock_at % 1'000'000'000;
  }
  return result;
}

namespace velmora::plugin::network {
namespace {

using test::ExpectNear;
using test::TakeSyslog;

/// Text of the log lines, without their places; those about the model cache, or the others.
std::vector<std::string> TakeLines(bool about_cache = false) {
  std::vector<std::string> lines;
  for (const test::SyslogLine& line : TakeSyslog()) {
    const std::string text = line.text.substr(line.text.find(' ') + 1);
    if (text.starts_with("[IeNetwork] No model cache: ") == about_cache) {
      lines.push_back(text);
    }
  }
  return lines;
}

class IeNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    NEED_OWN_NAMESPACE();
    TakeSyslog();
    // The model cache's folder, an empty one; without it each load logs a line.
    ASSERT_TRUE(test::PlaceFile("/var/packages/Velmora/target/models/.keep", ""));
    ASSERT_EQ(0, mount("none", "/var/packages/Velmora/target/models", "tmpfs", 0, nullptr));
    std::filesystem::current_path("/tmp");
  }
};

/// Writes an IR pair, NAME.xml and NAME.bin, in the current folder.
void Write(const std::string& name, const ov::OutputVector& outputs,
           const ov::ParameterVector& inputs) {
  ov::ResultVector results;
  for (const auto& output : outputs) {
    results.push_back(std::make_shared<ov::opset8::Result>(output));
  }
  ov::serialize(std::make_shared<ov::Model>(results, inputs), name + ".xml", name + ".bin");
}

std::shared_ptr<ov::opset8::Parameter> Input(const std::string& name, const ov::Shape& shape) {
  auto input = std::make_shared<ov::opset8::Parameter>(ov::element::f32, shape);
  input->set_friendly_name(name);
  return input;
}

/// A network "out" = `factor` * "data" + 1.
void WriteScale(const std::string& name, float factor, const ov::Shape& shape) {
  const auto input = Input("data", shape);
  const auto scaled = std::make_shared<ov::opset8::Multiply>(
      input, ov::opset8::Constant::create(ov::element::f32, {}, {factor}));
  const auto out = std::make_shared<ov::opset8::Add>(
      scaled, ov::opset8::Constant::create(ov::element::f32, {}, {1.0F}));
  out->set_friendly_name("out");
  Write(name, {out}, {input});
}

/// Runs twice the input plus one on the CPU, and three times plus one on the GPU.
NetworkConfig Scale(std::uint32_t batch_size, const ov::Shape& shape = {1, 3, 2, 2}) {
  WriteScale("cpu", 2, shape);
  WriteScale("gpu", 3, shape);
  NetworkConfig config;
  config.output_names = {"out"};
  config.ie_cpu_xml_path = "cpu.xml";
  config.ie_cpu_bin_path = "cpu.bin";
  config.ie_gpu_xml_path = "gpu.xml";
  config.ie_gpu_bin_path = "gpu.bin";
  config.batch_size = batch_size;
  return config;
}

cv::Mat Ramp(int rows, int cols, int channels, float first = 0) {
  cv::Mat image(rows, cols, CV_MAKETYPE(CV_32F, channels));
  for (int i = 0; i < rows * cols * channels; ++i) {
    image.ptr<float>()[i] = first + static_cast<float>(i);
  }
  return image;
}

/// What the network of Scale() makes of Ramp().
std::vector<float> Expected(int pixels, int channels, float factor, float first = 0) {
  std::vector<float> values;
  for (int c = 0; c < channels; ++c) {
    for (int p = 0; p < pixels; ++p) {
      values.push_back(factor * (first + static_cast<float>(p * channels + c)) + 1);
    }
  }
  return values;
}

TEST_F(IeNetworkTest, GivesTheReferenceNumbersInSingleBatchAndAsync) {
  const test::SampleModel sample;
  for (const char* const device : {"cpu", "gpu"}) {  // the GPU's pair has weights in 16 bits
    NetworkConfig config;
    config.output_names = {"prob", "features", "prob"};
    config.ie_cpu_xml_path = sample.Path(std::string("digits-") + device + ".xml");
    config.ie_cpu_bin_path = sample.Path(std::string("digits-") + device + ".bin");
    config.batch_size = 4;
    const float tolerance = device == std::string("cpu") ? 1e-5F : 2e-3F;
    const std::vector<cv::Mat> images(sample.images().begin(), sample.images().begin() + 7);
    IeNetwork network(config);
    EXPECT_FALSE(network.ShouldExitAfterShutdown());
    const std::vector<OutputMap> results = network.Forward(images);
    ASSERT_EQ(7U, results.size());
    for (std::size_t i = 0; i < 7; ++i) {
      ASSERT_EQ(2U, results[i].size());
      ExpectNear(sample.Prob(i), results[i].at("prob"), tolerance);
      if (i < sample.features_known()) {
        ExpectNear(sample.Features(i), results[i].at("features"), 5 * tolerance);
      }
    }
    // One image in a batch of four: its own values first, then those of images of zeros.
    OutputMap single = network.Forward(images[5]);
    ASSERT_EQ(40U, single.at("prob").size());
    network.ForwardAsync(images[5]);
    EXPECT_EQ(single, network.WaitOutput());
    const std::vector<float> zeros =
        network.Forward(std::vector<cv::Mat>{cv::Mat::zeros(32, 24, CV_32FC3)})[0].at("prob");
    for (int slot = 1; slot < 4; ++slot) {
      EXPECT_TRUE(std::equal(zeros.begin(), zeros.end(), single.at("prob").begin() + slot * 10));
    }
    single.at("prob").resize(10);
    ExpectNear(sample.Prob(5), single.at("prob"), tolerance);
  }
}

TEST_F(IeNetworkTest, PointsTheOpenClLoaderAtThePackagesDrivers) {
  setenv("OCL_ICD_VENDORS", "/etc/OpenCL/vendors", 1);
  IeNetwork(Scale(1)).WaitOutput();
  EXPECT_STREQ("/var/packages/Velmora/target/usr/lib/intel.icd", std::getenv("OCL_ICD_VENDORS"));
}

TEST_F(IeNetworkTest, LaysChannelsOutInPlanes) {
  for (const int channels : {1, 2, 3, 4, 5}) {
    const auto c = static_cast<std::size_t>(channels);
    IeNetwork network(Scale(1, {1, c, 5, 7}));
    EXPECT_EQ(Expected(35, channels, 2), network.Forward(Ramp(5, 7, channels)).at("out")) << c;
  }
}

TEST_F(IeNetworkTest, ReshapesWhenBothSidesAreSet) {
  NetworkConfig config = Scale(1);
  config.input_height = 3;
  EXPECT_EQ(12U, IeNetwork(config).Forward(Ramp(2, 2, 3)).at("out").size());
  config.input_width = 4;
  EXPECT_EQ(Expected(12, 3, 2), IeNetwork(config).Forward(Ramp(3, 4, 3)).at("out"));
}

TEST_F(IeNetworkTest, FeedsTheFirstInputAndNamesOutputsByTheirLayers) {
  const auto b = Input("b", {1, 3, 2, 2});
  const auto a = Input("a", {1, 3, 2, 2});
  const auto sum = std::make_shared<ov::opset8::Add>(a, b);
  sum->set_friendly_name("sum");
  sum->output(0).set_names({"a_tensor"});
  const auto split = std::make_shared<ov::opset8::Split>(
      a, ov::opset8::Constant::create(ov::element::i64, {}, {1}), 3);
  split->set_friendly_name("split");
  Write("two", {sum, split->output(2)}, {b, a});
  NetworkConfig config = Scale(1);
  config.ie_cpu_xml_path = "two.xml";
  config.ie_cpu_bin_path = "two.bin";
  config.output_names = {"sum", "split.2", "a_tensor"};
  const OutputMap result = IeNetwork(config).Forward(Ramp(2, 2, 3));
  EXPECT_EQ((std::vector<float>{0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11}), result.at("sum"));
  EXPECT_EQ(result.at("sum"), result.at("a_tensor"));
  EXPECT_EQ((std::vector<float>{2, 5, 8, 11}), result.at("split.2"));

  config.output_names = {"missing"};
  EXPECT_ANY_THROW(IeNetwork(config).Forward(Ramp(2, 2, 3)));
}

TEST_F(IeNetworkTest, TakesAndGivesFloatsWhateverTheModelHas) {
  const auto half =
      std::make_shared<ov::opset8::Parameter>(ov::element::f16, ov::Shape{1, 1, 2, 2});
  half->set_friendly_name("half");
  const auto sum = std::make_shared<ov::opset8::Add>(half, half);
  sum->set_friendly_name("out");
  NetworkConfig config = Scale(1);
  Write("cpu", {sum}, {half});
  EXPECT_EQ((std::vector<float>{0, 2, 4, 6}), IeNetwork(config).Forward(Ramp(2, 2, 1)).at("out"));
}

TEST_F(IeNetworkTest, RefusesWhatWouldReadOrWriteBeyondMemory) {
  const auto refused = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const Exception& exception) {
      return exception.message.starts_with("[IeNetwork] ");
    }
    return false;
  };
  IeNetwork network(Scale(2));
  const cv::Mat good = Ramp(2, 2, 3);
  const cv::Mat wide = Ramp(2, 4, 3);
  EXPECT_TRUE(refused([&] { network.Forward(Ramp(2, 1, 3)); }));
  EXPECT_TRUE(refused([&] { network.Forward(cv::Mat()); }));
  EXPECT_TRUE(refused([&] { network.Forward(cv::Mat(2, 2, CV_8UC3)); }));
  EXPECT_TRUE(refused([&] { network.Forward(wide.colRange(0, 2)); }));
  EXPECT_FALSE(refused([&] { network.Forward(wide); }));  // more than is needed is no harm
  EXPECT_FALSE(refused([&] { network.Forward(std::vector<cv::Mat>(5, good)); }));
  EXPECT_TRUE(network.Forward(std::vector<cv::Mat>()).empty());
  EXPECT_TRUE(refused([] { IeNetwork(Scale(0)).WaitOutput(); }));
  NetworkConfig flat = Scale(1, {1, 12});
  EXPECT_TRUE(refused([&] { IeNetwork(flat).Forward(good); }));
  flat.input_width = flat.input_height = 2;
  EXPECT_TRUE(refused([&] { IeNetwork(flat).WaitOutput(); }));

  const auto constant = ov::opset8::Constant::create(ov::element::f32, {1, 3}, {1});
  Write("cpu", {std::make_shared<ov::opset8::Relu>(constant)}, {});
  EXPECT_TRUE(refused([&] { IeNetwork(flat).WaitOutput(); }));

  // An input that is not fed keeps its type of one byte a value, and is no output to be read.
  const auto a = Input("a", {1, 3, 2, 2});
  const auto bytes =
      std::make_shared<ov::opset8::Parameter>(ov::element::u8, ov::Shape{1, 3, 2, 2});
  bytes->set_friendly_name("bytes");
  const auto sum = std::make_shared<ov::opset8::Add>(
      a, std::make_shared<ov::opset8::Convert>(bytes, ov::element::f32));
  Write("cpu", {sum}, {a, bytes});
  flat.output_names = {"bytes"};
  EXPECT_TRUE(refused([&] { IeNetwork(flat).Forward(good); }));
}

// ---- moving between the devices ----------------------------------------------------------------

/// Another process that transcodes with hardware, for as long as the object lives. It is killed in
/// the end, and its entry stays in the record for others to drop.
class Transcoder {
 public:
  Transcoder() {
    int ready[2];
    EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
    process_ = fork();
    if (process_ == 0) {
      {
        LibReelhouse::TransLoading record;
        record.SaveTransPID(getpid(), true, false);
      }
      EXPECT_EQ(1, write(ready[1], "", 1));
      pause();
      _exit(0);
    }
    char byte = 0;
    EXPECT_EQ(1, read(ready[0], &byte, 1));
    close(ready[0]);
    close(ready[1]);
  }
  Transcoder(const Transcoder&) = delete;
  Transcoder& operator=(const Transcoder&) = delete;
  ~Transcoder() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

 private:
  pid_t process_ = -1;
};

class IeDeviceTest : public IeNetworkTest {
 protected:
  void SetUp() override {
    IeNetworkTest::SetUp();
    machine_has_gpu = true;
    { const LibReelhouse::TransLoading makes_the_record; }
    TakeSyslog();
    if (ov::Core().get_available_devices().size() < 2) {
      GTEST_SKIP() << "the stand-in GPU is not in this engine's list";
    }
  }
};

TEST_F(IeDeviceTest, LeavesTheGpuAtOnceAndReturnsAfterAQuietMinute) {
  constexpr std::int64_t kMinute = 60'000'000'000;
  clock_at = 1'000 * kMinute;
  TakeLines();
  std::unique_ptr<BaseNetwork> network = std::make_unique<IeNetwork>(Scale(1));
  EXPECT_TRUE(network->ShouldExitAfterShutdown());
  const auto device = [&] {
    return network->Forward(Ramp(2, 2, 3)).at("out") == Expected(4, 3, 3) ? "GPU" : "CPU";
  };
  using Lines = std::vector<std::string>;
  EXPECT_STREQ("GPU", device());
  EXPECT_EQ(Lines{"[IeNetwork] Init network, device: GPU"}, TakeLines());

  std::optional<Transcoder> transcoder(std::in_place);
  EXPECT_STREQ("CPU", device());
  EXPECT_STREQ("CPU", device());
  EXPECT_EQ(
      (Lines{"[IeNetwork] Init network, device: CPU", "[IeNetwork] Switch device from GPU to CPU"}),
      TakeLines());

  // A transcode in the middle of the wait makes it start again.
  transcoder.reset();
  EXPECT_STREQ("CPU", device());
  transcoder.emplace();
  clock_at += kMinute;
  EXPECT_STREQ("CPU", device());
  transcoder.reset();
  EXPECT_STREQ("CPU", device());
  EXPECT_EQ(Lines(2, "[IeNetwork] Start waiting for gpu"), TakeLines());

  clock_at += kMinute - 1;
  EXPECT_STREQ("CPU", device());
  EXPECT_EQ(Lines{"[IeNetwork] Waiting time diff: 59"}, TakeLines());
  clock_at += 1;
  EXPECT_STREQ("GPU", device());
  EXPECT_EQ((Lines{"[IeNetwork] Waiting time diff: 60", "[IeNetwork] Init network, device: GPU",
                   "[IeNetwork] Switch device from CPU to GPU"}),
            TakeLines());
}

TEST_F(IeDeviceTest, AFailedSwitchKeepsTheOldRequest) {
  std::optional<Transcoder> transcoder(std::in_place);
  IeNetwork network(Scale(1));
  EXPECT_TRUE(network.ShouldExitAfterShutdown());
  transcoder.reset();
  clock_at = 1'000'000'000;
  network.Forward(Ramp(2, 2, 3));
  clock_at += 60'000'000'000;
  setenv("VELMORA_TEST_GPU_FAILS", "1", 1);
  TakeLines();
  try {
    network.Forward(Ramp(2, 2, 3));
    ADD_FAILURE() << "the GPU did not fail";
  } catch (const Exception& exception) {
    EXPECT_EQ("[IeNetwork] Init network failed", exception.message);
  }
  EXPECT_EQ(std::vector<std::string>{"[IeNetwork] Waiting time diff: 60"}, TakeLines());
  // The next decision goes by the new name, and the old request runs.
  EXPECT_EQ(Expected(4, 3, 2), network.Forward(Ramp(2, 2, 3)).at("out"));
  EXPECT_TRUE(TakeLines().empty());
}

// ---- the model cache ---------------------------------------------------------------------------

const char* const kCache = "/var/packages/Velmora/target/models/openvino_cache";

TEST_F(IeNetworkTest, LoadsWithoutItsCacheAndSaysSo) {
  namespace fs = std::filesystem;
  const NetworkConfig config = Scale(1);
  const auto lines_about_cache = [&] {
    TakeSyslog();
    EXPECT_EQ(Expected(4, 3, 2), IeNetwork(config).Forward(Ramp(2, 2, 3)).at("out"));
    return TakeLines(true).size();
  };
  EXPECT_EQ(0U, lines_about_cache());
  EXPECT_FALSE(fs::is_empty(kCache));
  EXPECT_EQ(0U, lines_about_cache());  // now from the cache

  for (const fs::directory_entry& file : fs::directory_iterator(kCache)) {
    fs::resize_file(file, 100);
  }
  EXPECT_EQ(1U, lines_about_cache());
  EXPECT_EQ(0U, lines_about_cache());  // mended

  // What cannot be read at all, such as another user's files; root reads those, but no folders.
  std::vector<fs::path> files;
  for (const fs::directory_entry& file : fs::directory_iterator(kCache)) {
    files.push_back(file);
  }
  for (const fs::path& file : files) {
    fs::remove(file);
    fs::create_directory(file);
  }
  EXPECT_EQ(1U, lines_about_cache());

  ASSERT_EQ(0, mount("none", kCache, "tmpfs", 0, "size=4k"));
  std::ofstream(std::string(kCache) + "/fill") << std::string(8192, 'x');
  EXPECT_EQ(1U, lines_about_cache());
  ASSERT_EQ(0, mount("none", kCache, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(1U, lines_about_cache());
  // Now the folder cannot be made.
  const std::string models = fs::path(kCache).parent_path();
  ASSERT_EQ(0, mount("none", models.c_str(), "tmpfs", MS_RDONLY, nullptr));
  EXPECT_EQ(1U, lines_about_cache());
}

}  // namespace
}  // namespace velmora::plugin::network
