// Times several ways to do the same work, in turn.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

/// Runs all sides in every round, so that whatever else the machine does hits them alike. A
/// different side goes first each time, because those behind it find the caches warmer.
class Interleaved {
 public:
  explicit Interleaved(std::size_t sides) : seconds_(sides) {}

  /// `prepare` runs before every side and is not timed: it brings the caches into the same state.
  void Run(
      const std::vector<std::function<void()>>& sides,
      const std::function<void()>& prepare = [] {}) {
    for (std::size_t i = 0; i < sides.size(); ++i) {
      const std::size_t side = (round_ + i) % sides.size();
      prepare();
      const auto start = std::chrono::steady_clock::now();
      sides[side]();
      const auto end = std::chrono::steady_clock::now();
      seconds_[side].push_back(std::chrono::duration<double>(end - start).count());
    }
    ++round_;
  }

  double LastSeconds(std::size_t side) const { return seconds_[side].back(); }

  double Median(std::size_t side) const {
    std::vector<double> values = seconds_[side];
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
  }

 private:
  std::size_t round_ = 0;
  std::vector<std::vector<double>> seconds_;
};
