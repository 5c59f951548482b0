#include <gmock/gmock.h>
#include <linux/capability.h>
#include <reelhouse/trans_loading.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora/plugin/network/ie_network.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <openvino/openvino.hpp>
#include <openvino/opsets/opset8.hpp>
#include <optional>

#include "support/machine.h"
#include "support/network.h"

namespace velmora::plugin::network {
namespace {

namespace fs = std::filesystem;
namespace op = ov::opset8;
using test::ErrorOf;
using test::Planes;
using test::Ramp;

struct IeNetworkTest : testing::Test {
  void SetUp() override { test::NewMachine(); }
};

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

/// A network that computes "out" as 2 * "data" on the CPU and as 3 * "data" on the GPU.
NetworkConfig Scale(std::uint32_t batch_size, const ov::PartialShape& shape = {1, 3, 2, 2}) {
  for (const auto& [device, factor] : {std::pair("cpu", 2.0F), std::pair("gpu", 3.0F)}) {
    const auto input = Named<op::Parameter>("data", ov::element::f32, shape);
    const auto constant = op::Constant::create(ov::element::f32, {}, {factor});
    Write(device, {Named<op::Multiply>("out", input, constant)}, {input});
  }
  return Config(batch_size, {"out"});
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
    EXPECT_EQ(Planes(4, 3, 2, static_cast<float>(100 * i)), results[i].at("out"));
  }
  // One image in a batch of four: its own values first, then those of images of zeros.
  std::vector<float> single = Planes(4, 3, 2, 600);
  single.resize(48);
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
    EXPECT_EQ(Planes(rows * cols, channels, 2),
              IeNetwork(Scale(1, shape)).Forward(Ramp(rows, cols, channels)).at("out"))
        << rows << " " << channels;
  }
}

/// Outputs of all kinds, of an image "a" of 4 x 2 pixels; and an input "b" that nothing feeds. Its
/// Reshapes hold the batch that the model is made for.
std::shared_ptr<ov::Model> Zoo(const ov::PartialShape& shape, ov::element::Type type,
                               const ov::PartialShape& other) {
  const auto a = Named<op::Parameter>("a", type, shape);
  const auto b = Named<op::Parameter>("b", ov::element::f32, other);
  b->output(0).set_names({"b_tensor"});
  const auto image = std::make_shared<op::Convert>(a, ov::element::f32);
  const std::int64_t batch = shape[0].is_static() ? shape[0].get_length() : 0;
  const auto planes = Named<op::Reshape>("the.planes", image, Whole({batch, 3, -1}), true);
  const auto flat = std::make_shared<op::Reshape>(image, Whole({batch, -1}), true);
  const auto all = std::make_shared<op::Reshape>(image, Whole({-1, 1}), true);
  const auto channel = op::Constant::create(ov::element::i64, {}, {1});
  const auto split = Named<op::Split>("split", image, channel, 3);
  split->output(2).set_names({"a_tensor"});
  const ov::OutputVector outputs = {planes,
                                    split->output(2),
                                    Named<op::ReduceSum>("sum", flat, Whole({1})),
                                    Named<op::ReduceMax>("max", all, Whole({0, 1})),
                                    Named<op::Convert>("whole", image, ov::element::i64),
                                    std::make_shared<op::Relu>(b)};
  return std::make_shared<ov::Model>(outputs, ov::ParameterVector{b, a});
}

TEST_F(IeNetworkTest, RunsWhatTheEngineRuns) {
  const std::vector<cv::Mat> images = {Ramp(4, 2, 3), Ramp(4, 2, 3, 50), Ramp(4, 2, 3, 100)};
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
        Config(each.batch, {"the.planes", "whole", "split.2", "a_tensor", "sum", "b", "b_tensor"});
    if (each.batch == 1) {
      config.output_names.push_back("max");  // of the whole batch
    }
    config.input_width = each.width;
    config.input_height = each.height;
    ov::serialize(Zoo(each.a, each.type, each.b), "cpu.xml", "cpu.bin",
                  ov::pass::Serialize::Version::IR_V10);
    const std::vector<OutputMap> results = IeNetwork(config).Forward(images);
    for (std::size_t i = 0; i < images.size(); ++i) {
      const auto first = static_cast<float>(50 * i);
      const std::vector<float> planes = Planes(8, 3, 1, first);
      const std::vector<float> last(planes.begin() + 16, planes.end());
      OutputMap expected = {{"the.planes", planes}, {"whole", planes},
                            {"split.2", last},      {"a_tensor", last},
                            {"max", {first + 23}},  {"sum", {24 * first + 23 * 12}}};
      expected["b"] = expected["b_tensor"] = std::vector<float>(each.values_of_b);
      if (each.batch != 1) {
        expected.erase("max");
      }
      EXPECT_EQ(expected, results[i]);
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
    const std::string text = ErrorOf([&] { IeNetwork(config).Forward(image); });
    return text.substr(text.find(' ') + 1);
  };
  EXPECT_EQ("none", error({1, 3, 2, 2}));  // what is left over is no harm
  EXPECT_EQ("An image must be continuous 32-bit floats of at least the input's size",
            error({1, 3, 2, 2}, 0, 0, wide.colRange(0, 2)));
  EXPECT_EQ("The image has other channels than the input", error({1, 2, 4, 3}));  // N, H, W, C
  EXPECT_EQ("The input does not take images", error({1, 12}));
  EXPECT_EQ("The input does not take images", error({1, 3, 2, 2, 1}));
  EXPECT_EQ("An input of fewer than four dimensions cannot be reshaped", error({1, 12}, 2, 2));
  const std::string open = "The input leaves sizes open: set both input_width and input_height";
  EXPECT_EQ(open, error({1, 3, -1, -1}));
  EXPECT_EQ("[IeNetwork] The batch size must not be 0",
            ErrorOf([] { IeNetwork network(Scale(0)); }));
  const auto run = [&](const std::string& name) { IeNetwork(Config(1, {name})).Forward(wide); };
  EXPECT_THAT([&] { run("missing"); }, testing::ThrowsMessage<std::exception>(testing::HasSubstr(
                                           "input or output with name: 'missing'")));
  const auto a = Named<op::Parameter>("a", ov::element::f32, ov::Shape{1, 3, 2, 2});
  // Which is not fed and keeps its type.
  const auto b = Named<op::Parameter>("b", ov::element::i8, ov::Shape{1});
  Write("cpu", {std::make_shared<op::Relu>(a), std::make_shared<op::Relu>(b)}, {a, b});
  EXPECT_EQ("[IeNetwork] An output must be 32-bit floats", ErrorOf([&] { run("b"); }));
  Write("cpu", {std::make_shared<op::Relu>(Whole({1}))}, {});
  EXPECT_EQ("[IeNetwork] The model has no input", ErrorOf([&] { run("out"); }));
  fs::remove("cpu.xml");  // what the engine says is thrown as it is
  EXPECT_THAT([&] { run("out"); },
              testing::ThrowsMessage<ov::Exception>(testing::HasSubstr("cpu.xml")));
}

TEST_F(IeNetworkTest, LoadsWithoutItsCacheAndSaysSo) {
  const std::string path = "/var/packages/Velmora/target/models/openvino_cache";
  const fs::path cache = test::Place(path);
  const NetworkConfig config = Scale(1);
  const auto expect = [&](const std::string& line) {
    EXPECT_EQ(Planes(4, 3, 2), IeNetwork(config).Forward(Ramp(2, 2, 3)).at("out"));
    EXPECT_THAT(test::TakeLog().at(0).text, testing::EndsWith("[IeNetwork] " + line));
  };
  const std::string loaded = "Init network, device: CPU";
  const std::string no_cache = "No model cache: " + path + ": ";
  expect(loaded);
  ASSERT_FALSE(fs::is_empty(cache));

  // What may not be read or written, such as another user's files; root may, unless it gives the
  // right away.
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2];
  ASSERT_EQ(0, syscall(SYS_capget, &header, rights));
  const std::uint32_t all = rights[0].effective;
  rights[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
  ASSERT_EQ(0, syscall(SYS_capset, &header, rights));
  fs::permissions(*fs::directory_iterator(cache), fs::perms::none);
  expect(loaded);
  const fs::perms look = fs::perms::owner_read | fs::perms::owner_exec;
  fs::permissions(cache, look);
  expect(no_cache + "Permission denied");
  fs::permissions(cache, fs::perms::owner_all);
  fs::remove_all(cache);
  fs::permissions(cache.parent_path(), look);
  expect(no_cache + "No such file or directory");  // and none can be made
  fs::permissions(cache.parent_path(), fs::perms::owner_all);
  rights[0].effective = all;
  ASSERT_EQ(0, syscall(SYS_capset, &header, rights));
}

// ---- moving between the devices ----------------------------------------------------------------

constexpr std::int64_t kMinute = 60'000'000'000;

using Lines = std::vector<std::string>;

/// What was written to the log: the priority (143 is a line for debugging) and the message.
Lines TakeLog() {
  Lines lines;
  for (const auto& [priority, text] : test::TakeLog()) {
    if (text.find("[IeNetwork]") == std::string::npos) {
      continue;  // the record's own
    }
    lines.push_back(std::to_string(priority) + text.substr(text.find("] ") + 1));
  }
  return lines;
}

/// Another process, in the record as one that transcodes with hardware until it is killed; others
/// drop its entry then.
struct Transcode {
  Transcode() {
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      LibReelhouse::TransLoading().SaveTransPID(getpid(), true, false);
      raise(SIGSTOP);
    }
    waitpid(process_, nullptr, WUNTRACED);
  }
  ~Transcode() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  const pid_t process_ = fork();
};

struct IeDeviceTest : IeNetworkTest {
  void SetUp() override {
    IeNetworkTest::SetUp();
    setenv("VELMORA_TEST_PLATFORM", "gpu", 1);
    unsetenv("VELMORA_TEST_GPU_FAILS");
    test::clock_at = 1'000 * kMinute;
  }

  /// A network that the next call moves back to the GPU.
  std::unique_ptr<IeNetwork> AboutToReturn() {
    transcode_.emplace();
    auto network = std::make_unique<IeNetwork>(Scale(1));
    EXPECT_TRUE(network->ShouldExitAfterShutdown());
    transcode_.reset();
    network->Forward(image_);
    test::clock_at += kMinute;
    TakeLog();
    return network;
  }

  std::optional<Transcode> transcode_;
  const cv::Mat image_ = Ramp(2, 2, 3);
  const std::vector<float> from_cpu_ = Planes(4, 3, 2);
  const std::vector<float> from_gpu_ = Planes(4, 3, 3);
};

TEST_F(IeDeviceTest, LeavesTheGpuAtOnceAndReturnsAfterAQuietMinute) {
  const Lines leaves = {"142 Init network, device: CPU", "143 Switch device from GPU to CPU"};
  const Lines starts = {"143 Start waiting for gpu"};
  const Lines returns = {"143 Waiting time diff: 60", "142 Init network, device: GPU",
                         "143 Switch device from CPU to GPU"};
  const struct {
    std::int64_t passes;  // nanoseconds, since the step before
    bool is_transcoding;
    std::string device;
    Lines log;
  } steps[] = {
      {0, false, "GPU", {"142 Init network, device: GPU"}},
      {kMinute, true, "CPU", leaves},
      {kMinute, true, "CPU", {}},
      {kMinute, false, "CPU", starts},
      {kMinute, true, "CPU", {}},  // and the wait begins anew
      {kMinute, false, "CPU", starts},
      {kMinute - 1, false, "CPU", {"143 Waiting time diff: 59"}},
      {1, false, "GPU", returns},
  };
  IeNetwork network(Scale(1));
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    test::clock_at += step.passes;
    if (!step.is_transcoding) {
      transcode_.reset();
    } else if (!transcode_) {
      transcode_.emplace();
    }
    EXPECT_EQ(step.device == "GPU" ? from_gpu_ : from_cpu_, network.Forward(image_).at("out"));
    EXPECT_EQ(step.device, network.GetDevice());
    EXPECT_EQ(step.log, TakeLog());
  }
}

TEST_F(IeDeviceTest, EachWayToRunAnImageLooksAndFetchingItsResultDoesNot) {
  const auto network = AboutToReturn();
  test::clock_at -= 1;
  network->Forward(image_);
  network->Forward(std::vector{image_});
  network->ForwardAsync(image_);
  EXPECT_EQ(Lines(3, "143 Waiting time diff: 59"), TakeLog());
  test::clock_at += 1;
  EXPECT_EQ(from_cpu_, network->WaitOutput().at("out"));
  EXPECT_EQ(Lines(), TakeLog());
  // Before it returns it looks once more.
  test::when_the_clock_is_read = [&] { transcode_.emplace(); };
  EXPECT_EQ(from_cpu_, network->Forward(image_).at("out"));
  EXPECT_EQ("143 Switch device from CPU to CPU", TakeLog().back());
}

TEST_F(IeDeviceTest, AFailedSwitchKeepsTheOldRequest) {
  const auto network = AboutToReturn();
  setenv("VELMORA_TEST_GPU_FAILS", "1", 1);
  EXPECT_EQ("[IeNetwork] Init network failed", ErrorOf([&] { network->Forward(image_); }));
  EXPECT_EQ(Lines{"143 Waiting time diff: 60"}, TakeLog());
  // The next decision goes by the new name, and the old request runs.
  EXPECT_EQ("GPU", network->GetDevice());
  EXPECT_EQ(from_cpu_, network->Forward(image_).at("out"));
  EXPECT_EQ(Lines(), TakeLog());
  // The wait is over: after another transcode it begins anew.
  transcode_.emplace();
  network->Forward(image_);
  transcode_.reset();
  TakeLog();
  network->Forward(image_);
  EXPECT_EQ(Lines{"143 Start waiting for gpu"}, TakeLog());
}

TEST_F(IeDeviceTest, NeedsBothFilesForTheGpuAndElseReadsNoRecord) {
  const std::string record = test::Place("/tmp/Reelhouse/enabled");
  for (const auto path : {&NetworkConfig::ie_gpu_xml_path, &NetworkConfig::ie_gpu_bin_path}) {
    NetworkConfig config = Scale(1);
    (config.*path).clear();
    IeNetwork network(config);
    EXPECT_FALSE(network.ShouldExitAfterShutdown());
    EXPECT_EQ(from_cpu_, network.Forward(image_).at("out"));
  }
  EXPECT_FALSE(fs::exists(record));
  IeNetwork network(Scale(1));
  EXPECT_TRUE(fs::remove(record));
  EXPECT_TRUE(network.Forward(std::vector<cv::Mat>()).empty());
  EXPECT_TRUE(fs::exists(record));
}

}  // namespace
}  // namespace velmora::plugin::network
