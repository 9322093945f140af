// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Domain/AgentSession.h"
#include "Domain/BudgetIntelligence.h"

namespace vimbrel {

/// Sessions are shared with the table they came from; nothing here copies one.
using SessionList = std::vector<std::shared_ptr<const AgentSession>>;

/// One host application of a family, with the sessions that run in it.
struct AgentHostPresentation {
  std::string id;  ///< "<agent>_<host>", for example "claude_Terminal"
  std::string hostAppName;
  SessionList sessions;  ///< newest start first
  bool operator==(const AgentHostPresentation& other) const;
};

/// All sessions of one agent as one row for people.
struct AgentFamilyPresentation {
  /// An agent without sessions is still shown for this long after its last budget report.
  static constexpr Seconds recentReport{3600};

  AgentType agentType = AgentType::custom;
  AgentState aggregateState = AgentState::idle;
  std::int64_t sessionCount = 0;
  std::int64_t logicalSessionCount = 0;  ///< as a person would count: processes of one host are one session
  std::int64_t workingSessionCount = 0;
  std::int64_t waitingSessionCount = 0;
  std::int64_t hostCount = 0;
  std::int64_t processCount = 0;
  std::vector<AgentHostPresentation> hosts;  ///< by name
  SessionList sessions;                      ///< newest start first
  std::optional<ProviderBudgetReport> budgetReport;

  [[nodiscard]] std::string id() const { return std::string(rawValue(agentType)); }
  [[nodiscard]] std::string displayName() const { return std::string(vimbrel::displayName(agentType)); }
  /// "2 sessions active", "3 processes detected · Idle", …
  [[nodiscard]] std::string summarySubtitle() const;
  /// The budget in one line; the subtitle when there is no budget.
  [[nodiscard]] std::string budgetSummaryLine() const;
  [[nodiscard]] std::optional<LowBudgetAlert> lowBudgetAlert() const;
  bool operator==(const AgentFamilyPresentation& other) const;

  /// One family for each agent that has sessions, or a budget report of the last hour, in display order:
  /// those at work first, then by name.
  [[nodiscard]] static std::vector<AgentFamilyPresentation> buildFamilies(
      std::span<const std::shared_ptr<const AgentSession>> sessions,
      const std::map<AgentType, ProviderBudgetReport>& budgetReports, Instant now);
};

}  // namespace vimbrel
