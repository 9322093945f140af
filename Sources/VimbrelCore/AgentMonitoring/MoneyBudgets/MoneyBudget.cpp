// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/MoneyBudgets/MoneyBudget.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Support/SaturatingSum.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using namespace std::chrono;
using nlohmann::json;

namespace {

constexpr std::array<std::string_view, 3> periodNames{"daily", "weekly", "monthly"};
constexpr double leastPaceShare = 0.1;

struct Period {
  Instant start;
  Instant end;
};

Period periodAround(BudgetPeriod period, Instant now, const CalendarZone& zone) {
  const sys_days today{zone.dayOf(now)};
  const year_month_day day{today};
  switch (period) {
    case BudgetPeriod::daily:
      break;
    case BudgetPeriod::weekly: {
      const auto monday = today - days{weekday{today}.iso_encoding() - 1};
      return {zone.startOf(monday), zone.startOf(monday + days{7})};
    }
    case BudgetPeriod::monthly: {
      const auto first = day.year() / day.month() / 1;
      return {zone.startOf(first), zone.startOf(first + months{1})};
    }
  }
  return {zone.startOf(today), zone.startOf(today + days{1})};
}

/// "/home/me/project/" is the directory "/home/me/project".
std::string_view withoutTrailingSlash(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}

/// A project's directories below it belong to it.
bool isInside(std::string_view directory, std::string_view project) {
  if (!directory.starts_with(project)) return false;
  return directory.size() == project.size() || project == "/" || directory[project.size()] == '/';
}

}  // namespace

std::string_view rawValue(BudgetPeriod period) { return periodNames.at(static_cast<std::size_t>(period)); }

std::optional<BudgetPeriod> budgetPeriodFromRawValue(std::string_view text) {
  const auto found = std::ranges::find(periodNames, text);
  if (found == periodNames.end()) return std::nullopt;
  return static_cast<BudgetPeriod>(found - periodNames.begin());
}

json toJson(const MoneyBudget& budget) {
  json document{{"period", rawValue(budget.scope.period)}, {"amountUSD", budget.amountUSD}};
  if (budget.scope.agent) document["agent"] = rawValue(*budget.scope.agent);
  if (budget.scope.project) document["project"] = *budget.scope.project;
  return document;
}

std::expected<MoneyBudget, std::string> moneyBudgetFromJson(const json& value) {
  StrictJsonObject fields(value, "budget");
  const auto period = budgetPeriodFromRawValue(fields.string("period"));
  if (!period) fields.fail("period", "is none of daily, weekly, monthly");
  MoneyBudget budget;
  budget.amountUSD = fields.number("amountUSD");
  if (!(budget.amountUSD > 0 && budget.amountUSD <= largestBudgetUSD))
    fields.fail("amountUSD", "is not an amount of dollars above 0");
  if (const auto agent = fields.optionalString("agent")) {
    budget.scope.agent = agentTypeFromRawValue(*agent);
    if (!budget.scope.agent) fields.fail("agent", "names no agent");
  }
  if (const auto project = fields.optionalString("project")) {
    if (!project->starts_with('/')) fields.fail("project", "is not an absolute path");
    budget.scope.project = withoutTrailingSlash(*project);
  }
  if (fields.error()) return std::unexpected(*fields.error());
  budget.scope.period = *period;
  return budget;
}

std::string describe(const BudgetScope& scope) {
  // Whole phrases: put together from parts they could not be told in another language.
  struct Phrases {
    const char* all;
    const char* agent;
    const char* project;
    const char* both;
  };
  static constexpr Phrases daily{sentence("daily"), sentence("daily of %1"), sentence("daily in %1"),
                                 sentence("daily of %1 in %2")};
  static constexpr Phrases weekly{sentence("weekly"), sentence("weekly of %1"), sentence("weekly in %1"),
                                  sentence("weekly of %1 in %2")};
  static constexpr Phrases monthly{sentence("monthly"), sentence("monthly of %1"), sentence("monthly in %1"),
                                   sentence("monthly of %1 in %2")};
  const auto& phrases = scope.period == BudgetPeriod::daily    ? daily
                        : scope.period == BudgetPeriod::weekly ? weekly
                                                               : monthly;
  if (scope.agent && scope.project) {
    return sentence(phrases.both, {displayName(*scope.agent), *scope.project});
  }
  if (scope.agent) return sentence(phrases.agent, {displayName(*scope.agent)});
  if (scope.project) return sentence(phrases.project, {*scope.project});
  return phrases.all;
}

json toJson(const BudgetStanding& standing) {
  auto document = toJson(standing.budget);
  document["periodStart"] = formatIso8601(standing.periodStart);
  document["periodEnd"] = formatIso8601(standing.periodEnd);
  document["spentUSD"] = standing.spentUSD;
  document["forecastUSD"] = standing.forecastUSD;
  document["usedPercent"] = standing.usedPercent();
  document["unpricedTokens"] = standing.unpricedTokens;
  document["isOver"] = standing.isOver();
  return document;
}

std::vector<BudgetStanding> budgetStandings(
    const UsageStore& store, std::span<const MoneyBudget> budgets, Instant now, const CalendarZone& zone,
    const std::function<std::optional<std::string>(std::string_view)>& projectOf) {
  std::vector<BudgetStanding> standings;
  for (const auto& budget : budgets) {
    const auto period = periodAround(budget.scope.period, now, zone);
    BudgetStanding standing{.budget = budget, .periodStart = period.start, .periodEnd = period.end};
    // Ranges include both ends; a period ends before the next one starts.
    const auto last = instantFromUnixSeconds(std::nextafter(unixSeconds(period.end), 0.0));
    store.forEachEvent(period.start, last, [&](const UsageEventView& event) {
      if (budget.scope.agent && event.agentType != *budget.scope.agent) return;
      if (budget.scope.project) {
        const auto directory = projectOf(event.sessionId);
        if (!directory || !isInside(withoutTrailingSlash(*directory), *budget.scope.project)) return;
      }
      if (event.costEstimateUSD) {
        // A hook may say what it likes of tokens; nothing that it says gives money back.
        standing.spentUSD += std::max(*event.costEstimateUSD, 0.0);
      } else {
        standing.unpricedTokens = saturatingAdd(standing.unpricedTokens, event.tokenFigure());
      }
    });
    const double length = unixSeconds(period.end) - unixSeconds(period.start);
    const double elapsed = unixSeconds(now) - unixSeconds(period.start);
    standing.forecastUSD =
        std::max(standing.spentUSD, standing.spentUSD * length / std::max(elapsed, length * leastPaceShare));
    standings.push_back(std::move(standing));
  }
  return standings;
}

}  // namespace vimbrel
