// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {

using namespace std::chrono_literals;

OpenCodeUsageProvider::OpenCodeUsageProvider(std::string databasePath, std::shared_ptr<TaskQueue> queue,
                                             const Clock& clock, const ModelRateCard& card)
    : PollingUsageProvider(AgentType::opencode, std::move(queue), 3000ms, clock, Logger("usage.opencode"),
                           "OpenCodeUsageProvider active on " + databasePath),
      database_(std::move(databasePath)),
      parser_(card) {}

bool OpenCodeUsageProvider::sourceMayHaveChanged() {
  const auto version = database_.version();
  return version && version != lastRead_;
}

std::vector<UsageEvent> OpenCodeUsageProvider::readSource() {
  std::vector<UsageEvent> events;
  // Taken before the reading: what is written meanwhile shows at the next poll.
  const auto version = database_.version();
  if (!version || version == lastRead_) return events;
  const auto now = clock().now();
  // Only the newest messages are asked for; the old ones may be delivered again, as after a restart.
  constexpr std::size_t mostKnown = 10000;
  if (knownMessageIds_.size() > mostKnown) knownMessageIds_.clear();
  std::unordered_set<std::string> sessionsSeen;
  std::vector<TurnInterruption> interruptions;
  const bool complete = database_.newestMessages([&](const OpenCodeRow& row) {
    // The newest message of a session tells how its turn stands.
    if (sessionsSeen.emplace(row.sessionId).second) {
      if (auto found = parser_.interruption(row)) interruptions.push_back(std::move(*found));
    }
    const auto usage = parser_.parse(row, now);
    if (!usage) return;
    considerReport(*usage);
    const auto total = usage->event.totalTokens.value_or(0);
    const auto [known, isNew] = knownMessageIds_.try_emplace(std::string(row.id), total);
    if (!isNew && known->second >= total) return;
    known->second = total;
    events.push_back(usage->event);
  });
  if (complete) lastRead_ = version;
  if (onSessionDirectory) tellDirectories(events);
  if (onTurnInterrupted) {
    for (const auto& interruption : interruptions) {
      if (!database_.isChildSession(*interruption.sessionId)) onTurnInterrupted(interruption);
    }
  }
  return events;
}

void OpenCodeUsageProvider::tellDirectories(const std::vector<UsageEvent>& events) {
  std::unordered_set<std::string_view> asked;
  for (const auto& event : events) {
    if (!toldSessions_.contains(event.sessionId)) asked.emplace(event.sessionId);
  }
  if (asked.empty()) return;
  constexpr std::size_t mostTold = 10000;
  if (toldSessions_.size() > mostTold) toldSessions_.clear();
  // Old databases have no such table.
  database_.sessionDirectories([&](std::string_view session, std::string_view directory) {
    if (!asked.contains(session)) return;
    toldSessions_.emplace(session);
    onSessionDirectory(session, directory);
  });
}

/// What it finds is left for the next poll to deliver.
void OpenCodeUsageProvider::findReport() {
  const auto now = clock().now();
  database_.newestMessages([&](const OpenCodeRow& row) {
    if (const auto usage = parser_.parse(row, now)) considerReport(*usage);
  });
}

void OpenCodeUsageProvider::considerReport(const OpenCodeUsage& usage) {
  const auto& event = usage.event;
  if (report() && event.timestamp < report()->lastUpdated) return;
  std::optional<CostBudget> cost;
  if (event.costEstimateUSD) cost = CostBudget{std::max(*event.costEstimateUSD, 0.0), usage.isCostEstimated};
  setReport(ProviderBudgetReport::make({
      .agentType = AgentType::opencode,
      .sessionId = event.sessionId,
      .modelId = event.modelId,
      .context = BudgetMetric<ContextBudget>::known(
          ContextBudget::create(usage.contextWindow, event.totalTokens.value_or(0)), 1.0, "opencode-db"),
      .quota = BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable")),
      .sessionUsage = UsageMetrics{.inputTokens = event.inputTokens,
                                   .outputTokens = event.outputTokens,
                                   .cachedTokens = event.cachedTokens,
                                   .cacheWriteTokens = event.cacheWriteTokens,
                                   .reasoningTokens = event.reasoningTokens,
                                   .totalTokens = event.totalTokens,
                                   .contextWindow = usage.contextWindow,
                                   .sessionCostEstimateUSD = std::nullopt,
                                   .recordedAt = clock().now()},
      .cost = cost,
      .lastUpdated = event.timestamp,
      .source = "opencode-db",
  }));
}

}  // namespace vimbrel
