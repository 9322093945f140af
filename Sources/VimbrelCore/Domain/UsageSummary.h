// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>

#include "Domain/UsageEvent.h"

namespace vimbrel {

/// Totals of one agent over a set of events. Counts are tokens and saturate; money is US dollars.
struct AgentUsageSummary {
  std::int64_t totalTokens = 0;
  std::int64_t inputTokens = 0;
  std::int64_t outputTokens = 0;
  std::int64_t cachedTokens = 0;
  std::int64_t cacheWriteTokens = 0;
  std::int64_t reasoningTokens = 0;
  std::optional<double> estimatedCostUSD{};  ///< absent when no event carried a cost
  std::int64_t sessionCount = 0;
  std::int64_t turnCount = 0;
  bool operator==(const AgentUsageSummary&) const = default;
};

/// Totals over a set of events, and the same for each agent in it, by the agent's raw value.
struct UsageSummary : AgentUsageSummary {
  std::map<std::string, AgentUsageSummary> byAgent;
  bool operator==(const UsageSummary&) const = default;
};

/// Sums events into a summary. The events' session ids must outlive the builder.
class UsageSummaryBuilder {
 public:
  void add(const UsageEventView& event);
  [[nodiscard]] UsageSummary summary() const;

 private:
  struct Agent {
    AgentUsageSummary totals;
    std::unordered_set<std::string_view> sessions;
  };
  std::map<AgentType, Agent> agents_;
  AgentUsageSummary totals_;
};

[[nodiscard]] UsageSummary summarise(std::span<const UsageEvent> events);

}  // namespace vimbrel
