// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Domain/AgentType.h"
#include "Support/Instant.h"

namespace vimbrel::desktop {

/// One day of the bar chart, by agent.
struct UsageDay {
  std::chrono::year_month_day day;
  std::map<AgentType, std::int64_t> tokens;
  std::int64_t totalTokens = 0;
  std::optional<double> costUSD;  ///< absent when nothing of the day has a price
  std::string label;              ///< "Sat 31 Jan: 1.2M tokens, $3.10"; also for screen readers
  bool operator==(const UsageDay&) const = default;
};

struct UsageChart {
  std::vector<UsageDay> days;     ///< oldest first, days without use included; the last one is today
  std::vector<AgentType> agents;  ///< those that occur, in the usual order
  std::int64_t mostTokens = 0;    ///< of one day
  std::string today;              ///< "Today 1.2M tokens, $3.10"
  bool operator==(const UsageChart&) const = default;
};

inline constexpr int chartDays = 14;
/// "since" of the report that the chart is made of.
[[nodiscard]] Instant chartBegin(Instant now);
/// From the result of "usage.report" by "daily".
[[nodiscard]] UsageChart makeUsageChart(const nlohmann::json& report, Instant now);

/// A row of the usage window.
struct UsageRow {
  std::string name;
  std::string agents;  ///< "Claude Code, Codex CLI"
  std::int64_t tokens = 0;
  std::int64_t input = 0;
  std::int64_t output = 0;
  std::int64_t cached = 0;
  std::optional<double> costUSD;
  std::int64_t sessions = 0;
  bool operator==(const UsageRow&) const = default;
};
struct UsageTable {
  std::vector<UsageRow> rows;
  UsageRow total;
  std::string
      unpriced;  ///< two lines that name the models whose cost is in no sum; empty when there are none
  bool operator==(const UsageTable&) const = default;
};

/// What the rows of "usage.report" are: `moments` are the beginnings of billing windows, which the report
/// gives in UTC and the table by the user's clock.
enum class UsageKeys : std::uint8_t { names, days, moments };

/// From the result of "usage.report": the newest first where the rows are times, else the one with most
/// tokens.
[[nodiscard]] UsageTable makeUsageTable(const nlohmann::json& report, UsageKeys keys);

/// "$3.10", "<$0.01", or "no price" when it is absent.
[[nodiscard]] std::string costText(const std::optional<double>& costUSD);

}  // namespace vimbrel::desktop
