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
#include "Domain/RatesFile.h"
#include "Say.h"
#include "Support/DollarText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Table.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string money(const json& summary) {
  const auto cost = summary.find("estimatedCostUSD");
  // A model without a price must not look as if it had been free.
  if (cost == summary.end() || !cost->is_number()) {
    return summary.value("totalTokens", std::int64_t{0}) == 0 ? "-" : say("unpriced");
  }
  return dollarText(cost->get<double>());
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

void printReport(const json& report, const std::string& keyTitle) {
  const auto& rows = report.at("rows");
  if (rows.empty()) {
    printLines({say("No usage recorded")});
    return;
  }
  std::int64_t most = 1;
  for (const auto& row : rows) most = std::max(most, row.value("totalTokens", std::int64_t{0}));
  Table table(
      {keyTitle, say("TOKENS"), say("INPUT"), say("OUTPUT"), say("CACHED"), say("COST"), say("TURNS"), ""});
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
  add(say("total"), report.at("total"), "");
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
}

/// Costs of models that no price is known for are in no sum; that must not be overlooked.
void printUnpriced(const json& report) {
  std::string models;
  for (const auto& model : report.value("unpricedModels", json::array())) {
    if (!models.empty()) models += ", ";
    models += displayable(model.is_string() ? model.get<std::string>() : "?");
  }
  if (models.empty()) return;
  printLines({"", say("Unpriced, and in no cost: %1.", {models}),
              say("Give them prices in %1 (docs/usage.md).", {ratesFile::defaultPath()})});
}

}  // namespace

int usageTodayCommand(Output output) {
  const auto today = ask("usage.today", json::object());
  if (!today) return today.error();
  if (output == Output::json) {
    printJson(*today);
    return exitCode::done;
  }
  printLines({say("Today: %1 tokens, %2, %3, %4",
                  {tokens(*today, "totalTokens"), money(*today),
                   sayCount(today->value("sessionCount", 0), "%1 session", "%1 sessions"),
                   sayCount(today->value("turnCount", 0), "%1 turn", "%1 turns")})});
  json rows = json::array();
  const auto byAgent = today->value("byAgent", json::object());
  for (const auto& [agent, summary] : byAgent.items()) {
    rows.push_back(summary);
    rows.back()["key"] = agent;
  }
  if (!rows.empty()) printReport({{"rows", rows}, {"total", *today}}, say("AGENT"));
  return exitCode::done;
}

int usageReportCommand(const std::string& by, const UsageRange& range, Output output) {
  json params{{"by", by}};
  for (const auto& [text, key] : {std::pair(&range.since, "since"), std::pair(&range.until, "until"),
                                  std::pair(&range.agent, "agent"), std::pair(&range.timezone, "timezone")}) {
    if (!text->empty()) params[key] = *text;
  }
  // Reports by project first read what was written since the last time.
  const auto report = ask("usage.report", params, std::chrono::minutes(5));
  if (!report) return report.error();
  if (output == Output::json) {
    printJson(*report);
  } else {
    std::string title = by == "daily"      ? say("DAY")
                        : by == "weekly"   ? say("WEEK")
                        : by == "monthly"  ? say("MONTH")
                        : by == "sessions" ? say("SESSION")
                        : by == "models"   ? say("MODEL")
                        : by == "projects" ? say("PROJECT")
                                           : say("FIVE HOURS FROM");
    auto shown = *report;
    if (by == "blocks") {
      for (auto& row : shown["rows"]) row["key"] = localTime(row.value("key", ""));
    }
    printReport(shown, title);
    printUnpriced(*report);
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
      return reportUsage(say("usage reset asks first; without a terminal, give --yes"));
    std::printf("%s ", say("Forget every recorded use of every agent? Their own logs stay. [y/N]").c_str());
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
    if (!isYes(line)) return exitCode::failed;
  }
  const auto answer = ask("usage.reset", json::object());
  return answer ? exitCode::done : answer.error();
}

int usageRatesCommand(Output output) {
  const auto answer = ask("usage.rates", json::object());
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
    return exitCode::done;
  }
  Table table({say("MODEL"), say("INPUT"), say("OUTPUT"), say("CACHE READ"), say("CACHE WRITE"),
               say("REASONING"), say("CONTEXT")});
  const auto price = [](const json& row, const char* key) {
    char text[32];
    std::snprintf(text, sizeof text, "$%.4g", row.value(key, 0.0));
    return std::string(text);
  };
  for (const auto& row : answer->at("models")) {
    table.addRow({{row.value("model", "")},
                  {price(row, "input")},
                  {price(row, "output")},
                  {price(row, "cacheRead")},
                  {price(row, "cacheWrite")},
                  {price(row, "reasoning")},
                  {row.contains("contextWindow") ? tokens(row, "contextWindow") : "-"}});
  }
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
  printLines(
      {"", say("US dollars for a million tokens. Your own: %1", {displayable(answer->value("file", ""))})});
  const auto problem = answer->value("problem", "");
  return problem.empty() ? exitCode::done : reportProblem(retell(problem));
}

}  // namespace vimbrel
