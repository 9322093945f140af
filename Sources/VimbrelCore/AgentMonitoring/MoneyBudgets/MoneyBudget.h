// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "Domain/AgentType.h"
#include "Support/CalendarDay.h"

namespace vimbrel {

enum class BudgetPeriod : std::uint8_t { daily, weekly, monthly };

/// "daily", "weekly", "monthly"
[[nodiscard]] std::string_view rawValue(BudgetPeriod period);
[[nodiscard]] std::optional<BudgetPeriod> budgetPeriodFromRawValue(std::string_view text);

/// What a budget limits: the money of all agents, of one, of one project, or of one agent in one project.
struct BudgetScope {
  BudgetPeriod period = BudgetPeriod::daily;
  std::optional<AgentType> agent{};
  std::optional<std::string> project{};  ///< a directory
  bool operator==(const BudgetScope&) const = default;
};

/// So much may be spent in each day, week (from Monday) or month of the user's calendar.
struct MoneyBudget {
  BudgetScope scope;
  double amountUSD = 0;  ///< more than 0
  bool operator==(const MoneyBudget&) const = default;
};

/// Larger amounts are slips of the finger.
inline constexpr double largestBudgetUSD = 1e9;

/// {"period", "amountUSD", "agent", "project"}; the last two may be missing. The error is a sentence.
[[nodiscard]] nlohmann::json toJson(const MoneyBudget& budget);
[[nodiscard]] std::expected<MoneyBudget, std::string> moneyBudgetFromJson(const nlohmann::json& value);
/// "daily", "weekly of Claude Code", "monthly in /home/me/project"
[[nodiscard]] std::string describe(const BudgetScope& scope);

/// Where a budget stands in its present period.
struct BudgetStanding {
  MoneyBudget budget;
  Instant periodStart{};
  Instant periodEnd{};
  double spentUSD = 0;
  /// What will have been spent at the period's end if it goes on like this. The pace is taken over at least a
  /// tenth of the period, so that a busy first minute does not look like ruin.
  double forecastUSD = 0;
  std::int64_t unpricedTokens = 0;  ///< used within the budget, at a price that nobody knows

  [[nodiscard]] double usedPercent() const { return spentUSD / budget.amountUSD * 100; }
  [[nodiscard]] bool isOver() const { return spentUSD > budget.amountUSD; }
};
/// The fields of the budget, "periodStart" and "periodEnd" in ISO 8601, "spentUSD", "forecastUSD",
/// "usedPercent", "unpricedTokens" and "isOver".
[[nodiscard]] nlohmann::json toJson(const BudgetStanding& standing);

/// `projectOf` gives the directory of a session.
[[nodiscard]] std::vector<BudgetStanding> budgetStandings(
    const UsageStore& store, std::span<const MoneyBudget> budgets, Instant now, const CalendarZone& zone,
    const std::function<std::optional<std::string>(std::string_view session)>& projectOf);

}  // namespace vimbrel
