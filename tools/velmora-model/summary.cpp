#include "summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/text.h"
#include "inputs.h"

namespace velmora::tool {

std::size_t OutputSummary::values() const { return Product(shape); }

OutputSummary Summarise(const std::string& name, const std::vector<float>& values) {
  OutputSummary summary;
  summary.name = name;
  summary.shape = {values.size()};
  double sum = 0;
  std::size_t finite = 0;
  for (const float value : values) {
    if (!std::isfinite(value)) {
      ++summary.not_finite;
      continue;
    }
    summary.min = finite == 0 ? value : std::min<double>(summary.min, value);
    summary.max = finite == 0 ? value : std::max<double>(summary.max, value);
    sum += value;
    ++finite;
  }
  summary.mean = finite == 0 ? 0 : sum / static_cast<double>(finite);
  return summary;
}

std::string SummaryTitles() {
  return fmt::format("{:>9}  {:>10}  {:>10}  {:>10}  {:>10}", "values", "min", "mean", "max",
                     "not finite");
}

std::string SummaryColumns(const OutputSummary& summary) {
  return fmt::format("{:>9}  {:>10.4g}  {:>10.4g}  {:>10.4g}  {:>10}", summary.values(),
                     summary.min, summary.mean, summary.max, summary.not_finite);
}

Json::Value ToJson(const OutputSummary& summary) {
  Json::Value entry;
  entry["name"] = JsonText(summary.name);
  entry["values"] = Json::UInt64{summary.values()};
  for (const std::size_t size : summary.shape) {
    entry["shape"].append(Json::UInt64{size});
  }
  entry["min"] = summary.min;
  entry["mean"] = summary.mean;
  entry["max"] = summary.max;
  entry["not_finite"] = Json::UInt64{summary.not_finite};
  return entry;
}

double Percentile(std::vector<double> values, double percent) {
  const double rank = std::ceil(percent / 100 * static_cast<double>(values.size()));
  const auto found = values.begin() + static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
  std::nth_element(values.begin(), found, values.end());
  return *found;
}

}  // namespace velmora::tool
