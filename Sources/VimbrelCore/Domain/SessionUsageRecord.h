// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Domain/UsageEvent.h"

namespace vimbrel {

/// The running totals of one agent session. Counts are tokens; money is US dollars. Sums saturate: they are
/// finite whatever the events carry.
struct SessionUsageRecord {
  std::string id;  ///< the events' session id
  AgentType agentType = AgentType::custom;
  std::optional<std::string> modelId{};  ///< of the first event; never updated
  Instant startedAt{};                   ///< of the first event that was recorded
  Instant lastActiveAt{};                ///< the latest that any event carried
  double durationSeconds = 0;            ///< from `startedAt` to `lastActiveAt`, never negative
  std::int64_t totalTokens = 0;
  std::int64_t inputTokens = 0;
  std::int64_t outputTokens = 0;
  std::int64_t cachedTokens = 0;
  std::int64_t cacheWriteTokens = 0;
  std::int64_t reasoningTokens = 0;
  std::optional<double> estimatedCostUSD{};       ///< absent until an event carries a cost
  std::optional<std::int64_t> contextWindow{};    ///< the latest that an event carried
  std::optional<double> quotaRemainingPercent{};  ///< the latest that an event carried

  /// The record of a session whose first event this is, before the event is folded in.
  [[nodiscard]] static SessionUsageRecord openedBy(const UsageEventView& event);
  /// Adds one event of this session.
  void fold(const UsageEventView& event);
  /// Moves the sums from one reading of an event to a later one. When a sum stands at the end of its range
  /// the difference is not known any more: returns false, and the record must be built anew.
  [[nodiscard]] bool exchange(const UsageEventView& earlier, const UsageEventView& later);
  bool operator==(const SessionUsageRecord&) const = default;
};

}  // namespace vimbrel
