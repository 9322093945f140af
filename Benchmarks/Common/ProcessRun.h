// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace vimbrel {

/// What one whole process cost, from its start to its end.
struct ProcessRun {
  double wallSeconds = 0;
  double cpuSeconds = 0;  ///< user and system
  long peakKiB = 0;       ///< resident
  int exitStatus = -1;
};

/// Runs a program to its end with its output thrown away.
ProcessRun runProcess(const std::vector<std::string>& command);

inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// One row of the table whose target is an upper bound of `value`, in `unit`; 0 means that there is none.
/// Returns whether the target is met.
bool printRow(const std::string& what, const std::string& ours, const std::string& reference, double value,
              double target, const char* unit, std::optional<double> costRatio);

}  // namespace vimbrel
