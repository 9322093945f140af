// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageLedger.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"

namespace vimbrel {

bool UsageLedger::accept(const UsageEventView& event) {
  std::string key;
  event.appendDeduplicationKey(key);
  if (const auto known = events.find(key)) {
    if (!known->row) return false;
    UsageEventTable::Scratch scratch;
    if (!event.countsMoreThan(events.view(*known->row, scratch))) return false;
    replace(*known->row, event, event);
    return true;
  }
  events.append(event);
  auto session = sessions.find(std::string(event.sessionId));
  if (session == sessions.end()) {
    session = sessions.emplace(event.sessionId, SessionUsageRecord::openedBy(event)).first;
  }
  session->second.fold(event);
  return true;
}

/// `counted` is what the session's totals are to see of the event.
void UsageLedger::replace(UsageEventTable::Row row, const UsageEventView& event,
                          const UsageEventView& counted) {
  const std::string sessionId(event.sessionId);
  const auto session = sessions.find(sessionId);
  UsageEventTable::Scratch scratch;
  const bool isMoved =
      session != sessions.end() && session->second.exchange(events.view(row, scratch), counted);
  events.replace(row, event);
  if (!isMoved) rebuildSession(sessionId);
}

std::size_t UsageLedger::priceUnpriced(const ModelRateCard& card) {
  std::size_t count = 0;
  std::string latestModel;
  const ModelRateCard::Row* rate = nullptr;
  UsageEventTable::Scratch scratch;
  for (UsageEventTable::Row row = 0; row < events.size(); ++row) {
    const auto earlier = events.view(row, scratch);
    if (earlier.costEstimateUSD || !earlier.modelId) continue;
    if (*earlier.modelId != latestModel) {
      latestModel = *earlier.modelId;
      rate = card.find(latestModel);
    }
    if (rate == nullptr) continue;
    auto billed = BilledTokens{.inputTokens = earlier.inputTokens,
                               .outputTokens = earlier.outputTokens,
                               .cachedTokens = earlier.cachedTokens,
                               .reasoningTokens = earlier.reasoningTokens,
                               .cacheWriteTokens = earlier.cacheWriteTokens};
    if (earlier.agentType == AgentType::codex && earlier.source != "relay-hook") {
      billed =
          BilledTokens::fromNestedCounts(earlier.inputTokens, earlier.outputTokens, earlier.cachedTokens);
    }
    auto event = earlier.toEvent();
    event.costEstimateUSD = rate->price(billed);
    if (!(std::fabs(*event.costEstimateUSD) <= usageStoreFormat::maximumCostUSD)) continue;
    auto counted = event.view();  // What the session last said of its window and quota stays.
    counted.contextWindow.reset();
    counted.quotaRemainingPercent.reset();
    replace(row, event.view(), counted);
    ++count;
  }
  return count;
}

void UsageLedger::rebuildSession(const std::string& sessionId) {
  UsageEventTable::Scratch scratch;
  std::optional<SessionUsageRecord> record;
  for (UsageEventTable::Row row = 0; row < events.size(); ++row) {
    const auto event = events.view(row, scratch);
    if (event.sessionId != sessionId) continue;
    if (!record) record = SessionUsageRecord::openedBy(event);
    record->fold(event);
  }
  if (record) sessions.insert_or_assign(sessionId, *std::move(record));
}

UsageSummary UsageLedger::summary(Instant from, Instant to) const {
  UsageSummaryBuilder builder;
  events.visit(from, to, [&](const UsageEventView& event) { builder.add(event); });
  return builder.summary();
}

std::vector<SessionUsageRecord> UsageLedger::recentSessions(std::size_t limit) const {
  std::vector<const SessionUsageRecord*> order;
  order.reserve(sessions.size());
  for (const auto& [id, session] : sessions) order.push_back(&session);
  const auto isLater = [](const SessionUsageRecord* left, const SessionUsageRecord* right) {
    if (left->lastActiveAt != right->lastActiveAt) return left->lastActiveAt > right->lastActiveAt;
    return left->id < right->id;
  };
  const auto count = std::min(limit, order.size());
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(), isLater);
  std::vector<SessionUsageRecord> result;
  result.reserve(count);
  for (std::size_t i = 0; i < count; ++i) result.push_back(*order[i]);
  return result;
}

}  // namespace vimbrel
