// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace vimbrel {

/// One row of the table that `./dev bench` prints of all benchmarks.
struct BenchmarkRow {
  std::string what;
  std::string ours;       ///< with its unit
  std::string reference;  ///< with what it is
  /// What ours costs for each unit that the reference costs, so that less is better whatever is counted;
  /// absent when the two cannot be compared. The regression gate compares these and nothing else.
  std::optional<double> costRatio;
  std::string target;       ///< "-" without one
  std::optional<bool> met;  ///< absent without a target
};

/// Prints the row, and appends it to the file that VIMBREL_BENCH_ROWS names, if it names one: a row a line,
/// its fields separated by tabs.
void printBenchmarkRow(const BenchmarkRow& row);

/// "12.3 us": three significant digits and a unit.
[[nodiscard]] std::string figure(double value, const char* unit);

}  // namespace vimbrel
