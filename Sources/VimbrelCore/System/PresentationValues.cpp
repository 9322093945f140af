// SPDX-License-Identifier: Apache-2.0
#include "System/PresentationValues.h"

#include <algorithm>

namespace vimbrel {
namespace {

/// The next moment after `now` at which the mere age of a report changes the rows.
std::optional<Instant> nextExpiry(const PresentationValues::BudgetReports& reports, Instant now) {
  std::optional<Instant> next;
  for (const auto& [agent, report] : reports) {
    const auto expiry = report.lastUpdated + AgentFamilyPresentation::recentReport;
    if (expiry > now && (!next || expiry < *next)) next = expiry;
  }
  return next;
}

}  // namespace

bool PresentationValues::isUnchanged(const PolicyEvaluationContext& context,
                                     const SessionSnapshot::Entries& newestFirst,
                                     const BudgetReports& reports) const {
  return builtFrom_ == newestFirst && builtWith_ == reports && (!builtUntil_ || context.now < *builtUntil_);
}

void PresentationValues::didDecide(const PolicyEvaluationContext& context,
                                   const SessionSnapshot::Entries& newestFirst,
                                   const WakeDecision& decision) {
  static const BudgetReports none;
  const auto& reports = budgetReports_ ? budgetReports_() : none;
  if (!isUnchanged(context, newestFirst, reports)) {
    auto families = AgentFamilyPresentation::buildFamilies(newestFirst, reports, context.now);
    builtFrom_ = newestFirst;
    builtWith_ = reports;
    builtUntil_ = nextExpiry(reports, context.now);
    if (families != agentFamilies_.get()) agentFamilies_.set(std::move(families));
  }
  const auto mood = aggregateVisualState(newestFirst, decision);
  if (mood != dominantVisualState_.get()) dominantVisualState_.set(mood);
}

}  // namespace vimbrel
