// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentFamilyPresentation.h"

#include <algorithm>
#include <set>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

bool sameSessions(const SessionList& left, const SessionList& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const auto& a, const auto& b) { return a == b || *a == *b; });
}

bool any(const SessionList& sessions, AgentState state) {
  return std::any_of(sessions.begin(), sessions.end(),
                     [state](const auto& session) { return session->state == state; });
}

AgentState aggregateState(const SessionList& sessions) {
  for (const auto state : {AgentState::error, AgentState::working, AgentState::waiting}) {
    if (any(sessions, state)) return state;
  }
  const bool allCompleted =
      !sessions.empty() && std::all_of(sessions.begin(), sessions.end(), [](const auto& session) {
        return session->state == AgentState::completed;
      });
  return allCompleted ? AgentState::completed : AgentState::idle;
}

void sortNewestFirst(SessionList& sessions) {
  std::stable_sort(sessions.begin(), sessions.end(),
                   [](const auto& a, const auto& b) { return a->startedAt > b->startedAt; });
}

std::vector<AgentHostPresentation> hostsOf(AgentType agent, const SessionList& sessions) {
  std::map<std::string, SessionList> byName;
  for (const auto& session : sessions) {
    byName[session->hostAppName.value_or(std::string(defaultHostAppName(agent)))].push_back(session);
  }
  std::vector<AgentHostPresentation> hosts;
  for (auto& [name, hosted] : byName) {
    sortNewestFirst(hosted);
    hosts.push_back({std::string(rawValue(agent)) + "_" + name, name, std::move(hosted)});
  }
  return hosts;
}

AgentFamilyPresentation familyOf(AgentType agent, SessionList sessions) {
  AgentFamilyPresentation family;
  family.agentType = agent;
  family.aggregateState = aggregateState(sessions);
  family.hosts = hostsOf(agent, sessions);
  family.hostCount = std::ssize(family.hosts);
  family.sessionCount = std::ssize(sessions);

  std::set<std::int32_t> pids;
  bool reportsItself = false;
  for (const auto& session : sessions) {
    if (session->state == AgentState::working) ++family.workingSessionCount;
    if (session->state == AgentState::waiting) ++family.waitingSessionCount;
    if (session->pid) pids.insert(*session->pid);
    reportsItself = reportsItself || session->integrationType == IntegrationType::lifecycleHook ||
                    session->integrationType == IntegrationType::plugin;
  }
  family.processCount = std::max<std::int64_t>(std::ssize(pids), family.sessionCount);
  family.logicalSessionCount = reportsItself ? family.sessionCount : family.hostCount;

  sortNewestFirst(sessions);
  family.sessions = std::move(sessions);
  return family;
}

}  // namespace

bool AgentHostPresentation::operator==(const AgentHostPresentation& other) const {
  return id == other.id && hostAppName == other.hostAppName && sameSessions(sessions, other.sessions);
}

bool AgentFamilyPresentation::operator==(const AgentFamilyPresentation& other) const {
  // Every count derives from the sessions.
  return agentType == other.agentType && budgetReport == other.budgetReport &&
         sameSessions(sessions, other.sessions);
}

std::string AgentFamilyPresentation::summarySubtitle() const {
  const std::string idle = sentence("Idle");
  if (aggregateState == AgentState::idle) {
    if (processCount < 1) return idle;
    return sentenceCount(processCount, "%1 process detected", "%1 processes detected") + " · " + idle;
  }
  const auto sessionsShown = std::max<std::int64_t>(logicalSessionCount, 1);
  auto active = sentenceCount(sessionsShown, "%1 session active", "%1 sessions active");
  if (processCount < 2 || (logicalSessionCount > 1 && logicalSessionCount >= processCount)) return active;
  return sentence("%1 (%2 processes)", {active, std::to_string(processCount)});
}

std::string AgentFamilyPresentation::budgetSummaryLine() const {
  if (!budgetReport) return summarySubtitle();
  return isActivelyWorking(aggregateState) ? budgetReport->actionableSummaryLine()
                                           : budgetReport->idleSummaryLine();
}

std::optional<LowBudgetAlert> AgentFamilyPresentation::lowBudgetAlert() const {
  return budgetReport ? budgetReport->lowBudgetAlert : std::nullopt;
}

std::vector<AgentFamilyPresentation> AgentFamilyPresentation::buildFamilies(
    std::span<const std::shared_ptr<const AgentSession>> sessions,
    const std::map<AgentType, ProviderBudgetReport>& budgetReports, Instant now) {
  std::map<AgentType, SessionList> groups;
  for (const auto& session : sessions) groups[session->agentType].push_back(session);
  for (const auto& [agent, report] : budgetReports) {
    if (now - report.lastUpdated < recentReport) groups.try_emplace(agent);
  }

  std::vector<AgentFamilyPresentation> families;
  for (auto& [agent, group] : groups) {
    families.push_back(familyOf(agent, std::move(group)));
    const auto report = budgetReports.find(agent);
    if (report != budgetReports.end()) families.back().budgetReport = report->second;
  }
  const auto rank = [](const AgentFamilyPresentation& family) {
    return family.workingSessionCount + family.waitingSessionCount > 0 ? 0 : 1;
  };
  std::stable_sort(families.begin(), families.end(), [&](const auto& a, const auto& b) {
    if (rank(a) != rank(b)) return rank(a) < rank(b);
    // Among the active, those that wait for their user come first.
    if ((a.waitingSessionCount > 0) != (b.waitingSessionCount > 0)) return a.waitingSessionCount > 0;
    return vimbrel::displayName(a.agentType) < vimbrel::displayName(b.agentType);
  });
  return families;
}

}  // namespace vimbrel
