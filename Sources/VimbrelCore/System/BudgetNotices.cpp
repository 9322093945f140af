// SPDX-License-Identifier: Apache-2.0
#include "System/BudgetNotices.h"

#include "Support/Sentence.h"

namespace vimbrel {

bool BudgetNotices::isNew(const Key& key) {
  if (!posted_.insert(key).second) return false;
  order_.push_back(key);
  if (order_.size() > mostRemembered) {
    posted_.erase(order_.front());
    order_.pop_front();
  }
  return true;
}

void BudgetNotices::didApply(const WakeDecision& /*previous*/, const WakeDecision& /*next*/) {
  for (const auto& [agent, report] : budgetReports_()) {
    const auto& alert = report.lowBudgetAlert;
    if (!alert || report.isOldNews() || !isNew({agent, report.sessionId.value_or(""), alert->level}))
      continue;
    if (!settings_->lowBudgetNotificationsEnabled()) continue;
    notifications_->notifyLowBudget(
        rawValue(agent), sentence("%1 budget: %2", {displayName(agent), displayLabel(alert->level)}),
        alert->message, alert->level != LowBudgetLevel::warning);
  }
}

}  // namespace vimbrel
