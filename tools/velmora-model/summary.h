// Many values in a few figures, for people and for programs.
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
  double least = 0;
  double mean = 0;
  double greatest = 0;

  std::size_t values() const;
};

/// The shape is one dimension.
OutputSummary Summarise(const std::string& name, const std::vector<float>& values);

/// Columns of a table, and what stands above them.
std::string SummaryTitles();
std::string SummaryColumns(const OutputSummary& summary);

Json::Value ToJson(const OutputSummary& summary);

/// The least of the values that so many percent of them do not exceed (the nearest rank). There has
/// to be a value.
double Percentile(std::vector<double> values, double percent);

}  // namespace velmora::tool
