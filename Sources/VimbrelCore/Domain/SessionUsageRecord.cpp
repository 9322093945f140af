// SPDX-License-Identifier: Apache-2.0
#include "Domain/SessionUsageRecord.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "Support/SaturatingSum.h"

namespace vimbrel {
namespace {

std::array<std::int64_t, 6> counts(const UsageEventView& event) {
  return {event.effectiveTotalTokens().value_or(0), event.inputTokens.value_or(0),
          event.outputTokens.value_or(0),           event.cachedTokens.value_or(0),
          event.cacheWriteTokens.value_or(0),       event.reasoningTokens.value_or(0)};
}

std::array<std::int64_t*, 6> sums(SessionUsageRecord& record) {
  return {&record.totalTokens,  &record.inputTokens,      &record.outputTokens,
          &record.cachedTokens, &record.cacheWriteTokens, &record.reasoningTokens};
}

bool isAtLimit(std::int64_t value) {
  return value == std::numeric_limits<std::int64_t>::max() ||
         value == std::numeric_limits<std::int64_t>::min();
}

constexpr double largest = std::numeric_limits<double>::max();

/// Sums of finite numbers may leave their range; like those of counts they stay at its end.
double finite(double sum) { return std::isnan(sum) ? 0 : std::clamp(sum, -largest, largest); }

void takeLatest(SessionUsageRecord& record, const UsageEventView& event) {
  record.lastActiveAt = std::max(record.lastActiveAt, event.timestamp);
  record.durationSeconds = finite(std::max((record.lastActiveAt - record.startedAt).count(), 0.0));
  if (event.contextWindow) record.contextWindow = event.contextWindow;
  if (event.quotaRemainingPercent) record.quotaRemainingPercent = event.quotaRemainingPercent;
}

}  // namespace

SessionUsageRecord SessionUsageRecord::openedBy(const UsageEventView& event) {
  return SessionUsageRecord{
      .id = std::string(event.sessionId),
      .agentType = event.agentType,
      .modelId = event.modelId ? std::optional<std::string>(*event.modelId) : std::nullopt,
      .startedAt = event.timestamp,
      .lastActiveAt = event.timestamp};
}

void SessionUsageRecord::fold(const UsageEventView& event) {
  const auto added = counts(event);
  const auto targets = sums(*this);
  for (std::size_t i = 0; i < targets.size(); ++i) *targets[i] = saturatingAdd(*targets[i], added[i]);
  if (event.costEstimateUSD) estimatedCostUSD = finite(estimatedCostUSD.value_or(0) + *event.costEstimateUSD);
  takeLatest(*this, event);
}

bool SessionUsageRecord::exchange(const UsageEventView& earlier, const UsageEventView& later) {
  const auto removed = counts(earlier);
  const auto added = counts(later);
  const auto targets = sums(*this);
  for (const auto* target : targets) {
    if (isAtLimit(*target)) return false;
  }
  if (std::fabs(estimatedCostUSD.value_or(0)) >= largest) return false;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    *targets[i] = saturatingAdd(saturatingSubtract(*targets[i], removed[i]), added[i]);
  }
  if (earlier.costEstimateUSD || later.costEstimateUSD) {
    estimatedCostUSD = finite(estimatedCostUSD.value_or(0) - earlier.costEstimateUSD.value_or(0) +
                              later.costEstimateUSD.value_or(0));
  }
  takeLatest(*this, later);
  return true;
}

}  // namespace vimbrel
