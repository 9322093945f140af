// SPDX-License-Identifier: Apache-2.0
#include "Presentation/UsageSummaries.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "DateWords.h"
#include "Domain/BudgetIntelligence.h"
#include "Domain/RatesFile.h"
#include "Presentation/JsonFields.h"
#include "Say.h"
#include "Support/CalendarDay.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

std::string dayKey(std::chrono::year_month_day day) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return text;
}

std::string amountText(std::int64_t tokens, const std::optional<double>& cost) {
  const auto count = formatTokenCompact(tokens);
  return cost ? say("%1 tokens, %2", {count, costText(cost)}) : say("%1 tokens", {count});
}

void readDay(const json& row, UsageDay& day) {
  day.totalTokens = integerOf(row, "totalTokens");
  day.costUSD = numberOf(row, "estimatedCostUSD");
  const auto& byAgent = memberOf(row, "byAgent");
  if (!byAgent.is_object()) return;
  for (const auto& [name, summary] : byAgent.items()) {
    const auto agent = agentTypeFromRawValue(name).value_or(AgentType::custom);
    day.tokens[agent] += integerOf(summary, "totalTokens");
  }
}

UsageRow readRow(const json& value) {
  UsageRow row;
  row.name = textOf(value, "key");
  row.tokens = integerOf(value, "totalTokens");
  row.input = integerOf(value, "inputTokens");
  row.output = integerOf(value, "outputTokens");
  row.cached = integerOf(value, "cachedTokens");
  row.costUSD = numberOf(value, "estimatedCostUSD");
  row.sessions = integerOf(value, "sessionCount");
  const auto& byAgent = memberOf(value, "byAgent");
  if (!byAgent.is_object()) return row;
  for (const auto& [name, summary] : byAgent.items()) {
    const auto agent = agentTypeFromRawValue(name);
    if (!row.agents.empty()) row.agents += ", ";
    row.agents += agent ? retell(displayName(*agent)) : name;
  }
  return row;
}

/// Costs of models that no price is known for are in no sum; that must not be overlooked.
std::string unpricedText(const json& report) {
  const auto& listed = memberOf(report, "unpricedModels");
  if (!listed.is_array()) return "";
  std::string models;
  for (const auto& model : listed) {
    if (!models.empty()) models += ", ";
    models += model.is_string() ? model.get<std::string>() : "?";
  }
  if (models.empty()) return "";
  return say("Unpriced, and in no cost: %1.", {models}) + "\n" +
         say("Give them prices in %1 (docs/usage.md).", {ratesFile::defaultPath()});
}

}  // namespace

std::string costText(const std::optional<double>& costUSD) {
  return costUSD ? retell(CostBudget{.amountUSD = *costUSD}.formattedCost()) : say("no price");
}

Instant chartBegin(Instant now) {
  return startOfLocalDay(std::chrono::sys_days(localDay(now)) - std::chrono::days(chartDays - 1));
}

UsageChart makeUsageChart(const json& report, Instant now) {
  UsageChart chart;
  const auto today = std::chrono::sys_days(localDay(now));
  for (int back = chartDays - 1; back >= 0; --back) {
    UsageDay day{.day = today - std::chrono::days(back)};
    const auto key = dayKey(day.day);
    for (const auto& row : memberOf(report, "rows")) {
      if (textOf(row, "key") == key) readDay(row, day);
    }
    day.label = shortDate(day.day) + ": " + amountText(day.totalTokens, day.costUSD);
    chart.mostTokens = std::max(chart.mostTokens, day.totalTokens);
    chart.days.push_back(std::move(day));
  }
  for (const auto agent : allAgentTypes) {
    const bool occurs = std::ranges::any_of(chart.days, [&](const UsageDay& day) {
      const auto found = day.tokens.find(agent);
      return found != day.tokens.end() && found->second > 0;
    });
    if (occurs) chart.agents.push_back(agent);
  }
  const auto& last = chart.days.back();
  chart.today = last.totalTokens == 0 ? say("Nothing used today")
                                      : say("Today %1", {amountText(last.totalTokens, last.costUSD)});
  return chart;
}

UsageTable makeUsageTable(const json& report, UsageKeys keys) {
  UsageTable table;
  for (const auto& row : memberOf(report, "rows")) table.rows.push_back(readRow(row));
  if (keys == UsageKeys::moments) {
    for (auto& row : table.rows) {
      if (const auto begin = parseIso8601(row.name)) row.name = localMinuteText(*begin);
    }
  }
  table.total = readRow(memberOf(report, "total"));
  table.total.name = say("Total");
  table.unpriced = unpricedText(report);
  if (keys != UsageKeys::names) {
    std::ranges::reverse(table.rows);
  } else {
    std::ranges::stable_sort(table.rows, std::greater{}, &UsageRow::tokens);
  }
  return table;
}

}  // namespace vimbrel::desktop
