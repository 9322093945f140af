// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "Domain/UsageSummary.h"
#include "Support/CalendarDay.h"

namespace vimbrel {

/// What makes the rows of a report.
enum class UsageGrouping : std::uint8_t { daily, weekly, monthly, sessions, models, projects, blocks };

[[nodiscard]] std::optional<UsageGrouping> usageGroupingFromName(std::string_view name);

/// What a report is made of.
struct UsageQuery {
  UsageGrouping grouping = UsageGrouping::daily;
  std::optional<Instant> since{};
  std::optional<Instant> until{};
  std::optional<AgentType> agent{};
  CalendarZone zone{};  ///< whose days, weeks and months
};

/// One row: a day (2026-01-31), a week (2026-W05), a month (2026-01), a session, a model, a project's
/// directory, or a five-hour billing window's start.
struct UsageRow {
  std::string key;
  UsageSummary summary;
  bool operator==(const UsageRow&) const = default;
};

struct UsageReport {
  std::vector<UsageRow> rows;  ///< by key; sessions, models and projects by tokens, most first
  UsageSummary total;
  /// Models with tokens that no price was known for: what they cost is in no sum.
  std::vector<std::string> unpricedModels;
};

/// The ISO 8601 week of a day, "2026-W05".
[[nodiscard]] std::string isoWeek(std::chrono::year_month_day day);

/// `projectOf` gives the directory of a session.
[[nodiscard]] UsageReport makeUsageReport(
    const UsageStore& store, const UsageQuery& query,
    const std::function<std::optional<std::string>(std::string_view session)>& projectOf);

}  // namespace vimbrel
