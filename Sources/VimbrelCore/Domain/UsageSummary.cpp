// SPDX-License-Identifier: Apache-2.0
#include "Domain/UsageSummary.h"

#include "Support/SaturatingSum.h"

namespace vimbrel {
namespace {

void addTo(AgentUsageSummary& totals, const UsageEventView& event) {
  const auto add = [](std::int64_t& sum, std::int64_t value) { sum = saturatingAdd(sum, value); };
  add(totals.totalTokens, event.tokenFigure());
  add(totals.inputTokens, event.inputTokens.value_or(0));
  add(totals.outputTokens, event.outputTokens.value_or(0));
  add(totals.cachedTokens, event.cachedTokens.value_or(0));
  add(totals.cacheWriteTokens, event.cacheWriteTokens.value_or(0));
  add(totals.reasoningTokens, event.reasoningTokens.value_or(0));
  if (event.costEstimateUSD) {
    totals.estimatedCostUSD = totals.estimatedCostUSD.value_or(0) + *event.costEstimateUSD;
  }
  ++totals.turnCount;
}

}  // namespace

void UsageSummaryBuilder::add(const UsageEventView& event) {
  addTo(totals_, event);
  auto& agent = agents_[event.agentType];
  addTo(agent.totals, event);
  agent.sessions.insert(event.sessionId);
}

UsageSummary UsageSummaryBuilder::summary() const {
  UsageSummary result;
  static_cast<AgentUsageSummary&>(result) = totals_;
  std::unordered_set<std::string_view> sessions;
  for (const auto& [type, agent] : agents_) {
    auto& totals = result.byAgent[std::string(rawValue(type))];
    totals = agent.totals;
    totals.sessionCount = static_cast<std::int64_t>(agent.sessions.size());
    sessions.insert(agent.sessions.begin(), agent.sessions.end());
  }
  result.sessionCount = static_cast<std::int64_t>(sessions.size());
  return result;
}

UsageSummary summarise(std::span<const UsageEvent> events) {
  UsageSummaryBuilder builder;
  for (const auto& event : events) builder.add(event.view());
  return builder.summary();
}

}  // namespace vimbrel
