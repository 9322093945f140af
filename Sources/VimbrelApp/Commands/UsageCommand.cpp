// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Domain/BudgetIntelligence.h"
#include "Support/CalendarDay.h"
#include "Terminal/Table.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string money(const json& summary) {
  const auto cost = summary.find("estimatedCostUSD");
  // A model without a price must not look as if it had been free.
  if (cost == summary.end() || !cost->is_number()) {
    return summary.value("totalTokens", std::int64_t{0}) == 0 ? "-" : "unpriced";
  }
  char text[64];
  std::snprintf(text, sizeof text, "$%.2f", cost->get<double>());
  return text;
}

std::string tokens(const json& summary, const char* key) {
  return formatTokenCompact(summary.value(key, std::int64_t{0}));
}

/// A bar of eighths of a character, as wide as the share of the largest value.
std::string bar(double share, std::size_t width) {
  static const char* const eighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  const auto units =
      static_cast<std::size_t>(std::lround(std::clamp(share, 0.0, 1.0) * static_cast<double>(width) * 8));
  std::string text;
  for (std::size_t i = 0; i < units / 8; ++i) text += "█";
  return text + eighths[units % 8];
}

void printReport(const json& report, const char* keyTitle) {
  const auto& rows = report.at("rows");
  if (rows.empty()) {
    printLines({"No usage recorded"});
    return;
  }
  std::int64_t most = 1;
  for (const auto& row : rows) most = std::max(most, row.value("totalTokens", std::int64_t{0}));
  Table table({keyTitle, "TOKENS", "INPUT", "OUTPUT", "CACHED", "COST", "TURNS", ""});
  const auto add = [&](const std::string& key, const json& summary, const std::string& chart) {
    table.addRow({{key},
                  {tokens(summary, "totalTokens")},
                  {tokens(summary, "inputTokens")},
                  {tokens(summary, "outputTokens")},
                  {tokens(summary, "cachedTokens")},
                  {money(summary)},
                  {std::to_string(summary.value("turnCount", std::int64_t{0}))},
                  {chart, Tone::dim}});
  };
  for (const auto& row : rows) {
    const auto share =
        static_cast<double>(row.value("totalTokens", std::int64_t{0})) / static_cast<double>(most);
    add(row.value("key", ""), row, bar(share, 16));
  }
  add("total", report.at("total"), "");
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
}

/// A day ("2026-01-31") as its first or last instant in the user's calendar, or an ISO 8601 time.
std::optional<Instant> momentOf(const std::string& text, bool endOfDay) {
  if (const auto exact = parseIso8601(text)) return exact;
  const auto noon = parseIso8601(text + "T12:00:00Z");
  if (!noon || text.size() != 10) return std::nullopt;
  const std::chrono::year_month_day day{
      std::chrono::floor<std::chrono::days>(std::chrono::time_point_cast<std::chrono::seconds>(*noon))};
  if (!endOfDay) return startOfLocalDay(day);
  return startOfLocalDay(std::chrono::sys_days{day} + std::chrono::days{1}) - Seconds{0.001};
}

}  // namespace

int usageTodayCommand(Output output) {
  const auto today = ask("usage.today", json::object());
  if (!today) return today.error();
  if (output == Output::json) {
    printJson(*today);
    return exitCode::done;
  }
  printLines({"Today: " + tokens(*today, "totalTokens") + " tokens, " + money(*today) + ", " +
              std::to_string(today->value("sessionCount", 0)) + " sessions, " +
              std::to_string(today->value("turnCount", 0)) + " turns"});
  json rows = json::array();
  const auto byAgent = today->value("byAgent", json::object());
  for (const auto& [agent, summary] : byAgent.items()) {
    rows.push_back(summary);
    rows.back()["key"] = agent;
  }
  if (!rows.empty()) printReport({{"rows", rows}, {"total", *today}}, "AGENT");
  return exitCode::done;
}

int usageReportCommand(const std::string& by, const UsageRange& range, Output output) {
  json params{{"by", by}};
  for (const auto& [text, key, endOfDay] :
       {std::tuple(&range.since, "since", false), std::tuple(&range.until, "until", true)}) {
    if (text->empty()) continue;
    const auto moment = momentOf(*text, endOfDay);
    if (!moment)
      return reportUsage(std::string("--") + key + " takes a day such as 2026-01-31, or an ISO 8601 time");
    params[key] = formatIso8601(*moment, true);
  }
  if (!range.agent.empty()) params["agent"] = range.agent;
  const auto report = ask("usage.report", params);
  if (!report) return report.error();
  if (output == Output::json) {
    printJson(*report);
  } else {
    std::string title = by == "daily"      ? "DAY"
                        : by == "weekly"   ? "WEEK"
                        : by == "monthly"  ? "MONTH"
                        : by == "sessions" ? "SESSION"
                        : by == "models"   ? "MODEL"
                        : by == "projects" ? "PROJECT"
                                           : "FIVE HOURS FROM";
    printReport(*report, title.c_str());
  }
  return exitCode::done;
}

int usageExportCommand(const std::string& format) {
  const auto answer = ask("usage.export", {{"format", format}});
  if (!answer) return answer.error();
  // Prometheus refuses a text with an empty line at its end.
  auto document = answer->value("document", "");
  while (document.ends_with('\n')) document.pop_back();
  printLines({document});
  return exitCode::done;
}

int usageResetCommand(bool confirmed) {
  if (!confirmed) {
    if (::isatty(STDIN_FILENO) == 0)
      return reportUsage("usage reset asks first; without a terminal, give --yes");
    std::printf("Forget every recorded use of every agent? Their own logs stay. [y/N] ");
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
    if (line != "y" && line != "Y" && line != "yes") return exitCode::failed;
  }
  const auto answer = ask("usage.reset", json::object());
  return answer ? exitCode::done : answer.error();
}

int budgetsCommand(Output output) {
  const auto answer = ask("budgets", json::object());
  if (!answer) return answer.error();
  const auto& budgets = answer->at("budgets");
  if (output == Output::json) {
    printJson(*answer);
    return exitCode::done;
  }
  if (budgets.empty()) {
    printLines({"No budget is known yet"});
    return exitCode::done;
  }
  Table table({"AGENT", "CONTEXT LEFT", "QUOTA LEFT", "RESETS", "COST", "ALERT"});
  const auto percent = [](const json& metric) -> std::string {
    if (metric.value("type", "") != "known") return metric.value("reason", "unknown");
    return std::to_string(std::lround(metric.at("value").value("percentageRemaining", 0.0))) + " %";
  };
  for (const auto& report : budgets) {
    const auto& quota = report.at("quota");
    std::string resets;
    if (quota.value("type", "") == "known") resets = quota.at("value").value("resetsAt", "");
    std::string cost;
    if (report.contains("cost")) {
      cost = CostBudget{report["cost"].value("amountUSD", 0.0), report["cost"].value("isEstimated", true)}
                 .formattedCost();
    }
    const auto agent = agentTypeFromRawValue(report.value("agentType", ""));
    table.addRow({{std::string(agent ? displayName(*agent) : "?")},
                  {percent(report.at("context"))},
                  {percent(quota)},
                  {resets},
                  {cost},
                  {report.contains("lowBudgetAlert") ? report["lowBudgetAlert"].value("message", "") : "",
                   Tone::warning}});
  }
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
  return exitCode::done;
}

}  // namespace vimbrel
