// Statistics of many values.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace velmora::tool {

struct OutputSummary {
  std::string name;
  std::vector<std::size_t> shape;  // their product is the number of values
  std::size_t not_finite = 0;
  // Of the finite values; 0 where there are none.
  double min = 0;
  double mean = 0;
  double max = 0;

  std::size_t values() const;
};

/// The shape has one dimension.
OutputSummary Summarise(const std::string& name, const std::vector<float>& values);

/// Columns of a table and their titles.
std::string SummaryTitles();
std::string SummaryColumns(const OutputSummary& summary);

Json::Value ToJson(const OutputSummary& summary);

/// The smallest of the values that at least so many percent of them do not exceed (nearest rank).
/// There must be a value.
double Percentile(std::vector<double> values, double percent);

}  // namespace velmora::tool
