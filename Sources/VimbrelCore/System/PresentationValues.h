// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "Domain/AgentFamilyPresentation.h"
#include "Domain/VimbrelVisualState.h"
#include "Support/Published.h"
#include "System/CoordinatorService.h"

namespace vimbrel {

/// What every surface draws: one row per agent, and the mood of the whole. Both follow from the sessions, the
/// budgets and the decision of each evaluation, and are announced only when they differ. Queue: the main
/// queue.
class PresentationValues final : public CoordinatorService {
 public:
  using BudgetReports = std::map<AgentType, ProviderBudgetReport>;

  /// `budgetReports` gives the latest report of each agent; empty where budgets are not recorded.
  explicit PresentationValues(std::function<const BudgetReports&()> budgetReports = {})
      : budgetReports_(std::move(budgetReports)) {}

  /// In display order; empty before the first evaluation.
  Published<std::vector<AgentFamilyPresentation>>& agentFamilies() { return agentFamilies_; }
  Published<VimbrelVisualState>& dominantVisualState() { return dominantVisualState_; }

  void didDecide(const PolicyEvaluationContext& context, const SessionSnapshot::Entries& newestFirst,
                 const WakeDecision& decision) override;

 private:
  [[nodiscard]] bool isUnchanged(const PolicyEvaluationContext& context,
                                 const SessionSnapshot::Entries& newestFirst,
                                 const BudgetReports& reports) const;

  const std::function<const BudgetReports&()> budgetReports_;
  Published<std::vector<AgentFamilyPresentation>> agentFamilies_{{}};
  Published<VimbrelVisualState> dominantVisualState_{VimbrelVisualState::idle};
  // What the families were last built from: an evaluation a second must not build them anew.
  SessionSnapshot::Entries builtFrom_;
  BudgetReports builtWith_;
  std::optional<Instant> builtUntil_;  ///< when a report of theirs grows too old to be shown by itself
};

}  // namespace vimbrel
