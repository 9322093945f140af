// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <cstdlib>

#include "Presentation/PopoverContent.h"
#include "Presentation/TimeText.h"
#include "Say.h"

namespace vimbrel::desktop {
namespace {

constexpr const char* separator = " · ";

std::string percentText(double percent) { return std::to_string(std::lround(percent)); }

std::string homeShortened(const std::string& directory) {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') return directory;
  const std::string prefix = home;
  if (directory == prefix) return "~";
  if (directory.starts_with(prefix + "/")) return "~" + directory.substr(prefix.size());
  return directory;
}

SessionRow makeSessionRow(const AgentSession& session, Instant now) {
  SessionRow row{.id = session.id, .visual = visualStateFor(session.state)};
  row.title = session.cwd ? homeShortened(*session.cwd) : retell(displayName(session.integrationType));
  row.detail = retell(displayLabel(session.state)) + separator + agoText(session.lastEventAt, now);
  if (session.pid) row.detail += separator + say("pid %1", {std::to_string(*session.pid)});
  return row;
}

std::vector<BudgetBar> barsOf(const ProviderBudgetReport& report) {
  std::vector<BudgetBar> bars;
  if (const auto* context = report.context.value()) {
    bars.push_back({.label = say("Context"),
                    .text = say("%1 % left", {percentText(context->percentageRemaining())}),
                    .remainingPercent = context->percentageRemaining(),
                    .isLow = context->isLow()});
  }
  if (const auto* quota = report.quota.value()) {
    bars.push_back({.label = say("Quota"),
                    .text = say("%1 % left", {percentText(quota->percentageRemaining)}),
                    .remainingPercent = quota->percentageRemaining,
                    .isLow = quota->isLow()});
  }
  return bars;
}

}  // namespace

FamilyRow makeFamilyRow(const AgentFamilyPresentation& family, Instant now) {
  FamilyRow row{.agent = family.agentType, .visual = visualStateFor(family.aggregateState)};
  row.name = retell(family.displayName());
  row.state = retell(displayLabel(family.aggregateState));
  row.subtitle = retell(family.summarySubtitle());
  if (const auto line = retell(family.budgetSummaryLine()); line != row.subtitle) row.budget = line;
  if (family.budgetReport) {
    row.bars = barsOf(*family.budgetReport);
    const auto& quota = family.budgetReport->quota;
    if (const auto* value = quota.value(); value != nullptr && value->resetsAt && *value->resetsAt > now) {
      row.bars.back().detail = say("resets %1", {momentText(*value->resetsAt, now)});
    }
  }
  if (const auto alert = family.lowBudgetAlert()) row.alert = retell(alert->message);
  for (const auto& host : family.hosts) {
    HostRow hostRow{.name = host.hostAppName};
    for (const auto& session : host.sessions) hostRow.sessions.push_back(makeSessionRow(*session, now));
    row.hosts.push_back(std::move(hostRow));
  }
  return row;
}

}  // namespace vimbrel::desktop
