// docs/hostile-models.md lists what OpenCV itself does not survive; no layer of that list is used
// here, so that no death is to be excused.
#include <gtest/gtest.h>

#include "opencv/caffe_model.h"
#include "support/caffe_writer.h"
#include "support/hostile.h"

namespace velmora::plugin::network::compat {
namespace {

using test::CaffeModel;
using test::ExpectSurvival;
using test::FlipOneBit;
using test::kStride;
using test::Outcome;

template <typename Load>
Outcome Try(Load load) {
  ::cv::setNumThreads(1);
  ::cv::dnn::Net net;
  try {
    net = load();
  } catch (const std::exception&) {
    return Outcome::kRefused;
  }
  if (net.empty()) {
    return Outcome::kRefused;
  }
  try {
    const int shape[] = {1, 3, 8, 8};
    net.setInput(::cv::Mat(4, shape, CV_32F, ::cv::Scalar(0.5)), "data");
    net.forward();
    return Outcome::kRan;
  } catch (const std::exception&) {
    return Outcome::kFailed;
  }
}

class HostileCaffe : public testing::TestWithParam<bool> {
 protected:
  const CaffeModel model_ = GetParam() ? test::NewFormModel() : test::OldFormModel();

  Outcome Binary(const std::string& bytes) const {
    return Try([&] { return ReadCaffeBinary(first_.With(bytes)); });
  }
  Outcome Pair(const std::string& prototxt, const std::string& weights) const {
    return Try([&] { return ReadCaffePair(first_.With(prototxt), second_.With(weights)); });
  }

 private:
  const test::MemoryFile first_;
  const test::MemoryFile second_;
};

INSTANTIATE_TEST_SUITE_P(, HostileCaffe, testing::Bool(),
                         [](const auto& form) { return form.param ? "NewForm" : "OldForm"; });

TEST_P(HostileCaffe, EveryTruncation) {
  ExpectSurvival("binary", test::Truncations(model_.binary),
                 [&](int i) { return Binary(test::Truncated(model_.binary, i)); });
  ExpectSurvival("weights", test::Truncations(model_.weights),
                 [&](int i) { return Pair(model_.prototxt, test::Truncated(model_.weights, i)); });
}

TEST_P(HostileCaffe, ThousandsOfFlippedBits) {
  ExpectSurvival("binary", 4000 / kStride,
                 [&](int i) { return Binary(FlipOneBit(model_.binary, i)); });
  ExpectSurvival("weights", 2000 / kStride,
                 [&](int i) { return Pair(model_.prototxt, FlipOneBit(model_.weights, i)); });
  ExpectSurvival("prototxt", 2000 / kStride,
                 [&](int i) { return Pair(FlipOneBit(model_.prototxt, i), model_.weights); });
}

}  // namespace
}  // namespace velmora::plugin::network::compat
