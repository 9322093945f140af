// SPDX-License-Identifier: Apache-2.0
#include "Domain/HookUsage.h"

#include "Support/SaturatingSum.h"
#include "Support/Uuid.h"

namespace vimbrel {

std::optional<UsageEvent> toUsageEvent(const HookEvent& event, const ModelRateCard& card) {
  const auto total = saturatingAdd(event.inputTokens.value_or(0), event.outputTokens.value_or(0),
                                   event.reasoningTokens.value_or(0));
  if (total < 1 && !event.model) return std::nullopt;
  return UsageEvent::make({
      .id = randomUuid(),
      .agentType = event.agent,
      .sessionId = event.sessionId,
      .turnId = event.turnId,
      .modelId = event.model,
      .inputTokens = event.inputTokens,
      .outputTokens = event.outputTokens,
      .cachedTokens = event.cachedTokens,
      .reasoningTokens = event.reasoningTokens,
      .costEstimateUSD = card.price(event.model, {.inputTokens = event.inputTokens,
                                                  .outputTokens = event.outputTokens,
                                                  .cachedTokens = event.cachedTokens,
                                                  .reasoningTokens = event.reasoningTokens}),
      .timestamp = event.timestamp,
      .source = "relay-hook",
  });
}

}  // namespace vimbrel
