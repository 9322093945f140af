// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Domain/AgentType.h"
#include "Domain/BudgetIntelligence.h"
#include "Say.h"
#include "Support/DollarText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Table.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string percentLeft(const json& metric) {
  if (metric.value("type", "") != "known") return retell(metric.value("reason", "unknown"));
  const auto text = std::to_string(std::lround(metric.at("value").value("percentageRemaining", 0.0))) + " %";
  return metric.value("source", "") == "status-line" ? say("%1 (measured)", {text}) : text;
}

std::string agentName(const json& document, const char* key) {
  const auto agent = agentTypeFromRawValue(document.value(key, ""));
  return retell(agent ? displayName(*agent) : "?");
}

void printTable(const Table& table) {
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
}

void printAgents(const json& budgets) {
  Table table(
      {say("AGENT"), say("CONTEXT LEFT"), say("QUOTA LEFT"), say("RESETS"), say("COST"), say("ALERT")});
  for (const auto& report : budgets) {
    const auto& quota = report.at("quota");
    std::string resets;
    if (quota.value("type", "") == "known") resets = localTime(quota.at("value").value("resetsAt", ""));
    std::string cost;
    if (report.contains("cost")) {
      cost =
          retell(CostBudget{report["cost"].value("amountUSD", 0.0), report["cost"].value("isEstimated", true)}
                     .formattedCost());
    }
    table.addRow(
        {{agentName(report, "agentType")},
         {percentLeft(report.at("context"))},
         {percentLeft(quota)},
         {resets},
         {cost},
         {report.contains("lowBudgetAlert") ? retell(report["lowBudgetAlert"].value("message", "")) : "",
          Tone::warning}});
  }
  printTable(table);
}

void printMoney(const json& standings) {
  Table table({say("BUDGET"), sayAs("budget", "FOR"), say("SPENT"), sayAs("budget", "OF"), say("USED"),
               say("FORECAST"), sayAs("budget", "UNTIL")});
  bool isIncomplete = false;
  for (const auto& standing : standings) {
    const double amount = standing.value("amountUSD", 0.0);
    const double used = standing.value("usedPercent", 0.0);
    const double forecast = standing.value("forecastUSD", 0.0);
    std::string scope = standing.contains("agent") ? agentName(standing, "agent") : say("all agents");
    if (standing.contains("project")) {
      scope = say("%1 in %2", {scope, displayable(standing.value("project", ""))});
    }
    const bool isUnpriced = standing.value("unpricedTokens", std::int64_t{0}) > 0;
    isIncomplete = isIncomplete || isUnpriced;
    table.addRow({{retell(standing.value("period", ""))},
                  {scope},
                  {dollarText(standing.value("spentUSD", 0.0)) + (isUnpriced ? " *" : "")},
                  {dollarText(amount)},
                  {std::to_string(std::lround(used)) + " %", used >= 80 ? Tone::warning : Tone::plain},
                  {dollarText(forecast), forecast > amount ? Tone::warning : Tone::plain},
                  {localTime(standing.value("periodEnd", ""))}});
  }
  printTable(table);
  if (isIncomplete) printLines({say("* and models without a price: vimbrel usage models")});
}

/// The parameters of the methods, or the exit status.
std::expected<json, int> paramsOf(const BudgetArguments& arguments) {
  json params{{"period", arguments.period}};
  if (!arguments.agent.empty()) params["agent"] = arguments.agent;
  if (!arguments.project.empty()) {
    std::error_code error;
    const auto path = std::filesystem::absolute(arguments.project, error);
    if (error) return std::unexpected(reportUsage(say("there is no directory %1", {arguments.project})));
    params["project"] = path.lexically_normal().native();
  }
  return params;
}

}  // namespace

int budgetsCommand(Output output) {
  const auto answer = ask("budgets", json::object());
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
    return exitCode::done;
  }
  const auto& agents = answer->at("budgets");
  const auto& money = answer->at("money");
  if (!agents.empty()) printAgents(agents);
  if (!agents.empty() && !money.empty()) printLines({""});
  if (!money.empty()) printMoney(money);
  if (agents.empty() && money.empty()) {
    printLines({say("No agent has told of its budget yet. Money budgets: vimbrel budgets set daily 20")});
  }
  const auto problem = answer->value("problem", "");
  if (problem.empty()) return exitCode::done;
  return reportProblem(retell(problem));
}

int budgetsSetCommand(const BudgetArguments& arguments) {
  auto params = paramsOf(arguments);
  if (!params) return params.error();
  std::string_view text = arguments.amount;
  if (text.starts_with('$')) text.remove_prefix(1);
  double amount = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), amount);
  if (parsed.ec != std::errc{} || parsed.ptr != text.data() + text.size() || !(amount > 0) ||
      !std::isfinite(amount)) {
    return reportUsage(say("the amount is a number of US dollars above 0, such as 20 or 7.50"));
  }
  (*params)["amountUSD"] = amount;
  const auto answer = ask("budgets.set", *params);
  return answer ? exitCode::done : answer.error();
}

int budgetsRemoveCommand(const BudgetArguments& arguments) {
  const auto params = paramsOf(arguments);
  if (!params) return params.error();
  const auto answer = ask("budgets.remove", *params);
  if (!answer) return answer.error();
  if (answer->value("removed", false)) return exitCode::done;
  return reportProblem(say("there is no such budget; vimbrel budgets lists them"));
}

int budgetsCheckCommand(Output output) {
  const auto answer = ask("budgets", json::object());
  if (!answer) return answer.error();
  if (const auto problem = answer->value("problem", ""); !problem.empty()) {
    // A script must not go on spending because a file could not be read.
    return reportProblem(retell(problem));
  }
  json over = json::array();
  for (const auto& standing : answer->at("money")) {
    if (standing.value("isOver", false)) over.push_back(standing);
  }
  if (output == Output::json) {
    printJson({{"over", over}});
  } else if (!over.empty()) {
    printMoney(over);
  }
  return over.empty() ? exitCode::done : exitCode::failed;
}

}  // namespace vimbrel
