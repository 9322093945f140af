// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Domain/AgentType.h"
#include "Support/Instant.h"

namespace vimbrel {

struct UsageEvent;

/// A usage event whose texts belong to somebody else: how stored events are looked at without copying them.
/// The texts live as long as the owner says.
struct UsageEventView {
  std::string_view id;
  AgentType agentType = AgentType::custom;
  std::string_view sessionId;
  std::optional<std::string_view> turnId;
  std::optional<std::string_view> modelId;
  std::optional<std::int64_t> inputTokens;
  std::optional<std::int64_t> outputTokens;
  std::optional<std::int64_t> cachedTokens;
  std::optional<std::int64_t> cacheWriteTokens;
  std::optional<std::int64_t> reasoningTokens;
  std::optional<std::int64_t> totalTokens;
  std::optional<std::int64_t> contextWindow;
  std::optional<double> costEstimateUSD;
  std::optional<double> quotaRemainingPercent;
  Instant timestamp{};
  std::string_view source;

  /// What the event adds to a sum of tokens: `totalTokens`, else input + output + reasoning (saturating).
  [[nodiscard]] std::int64_t tokenFigure() const;
  /// `totalTokens`, else input + output + reasoning; absent when that sum is below 1.
  [[nodiscard]] std::optional<std::int64_t> effectiveTotalTokens() const;
  /// Appends the key that says which events are the same usage, read twice.
  void appendDeduplicationKey(std::string& text) const;
  /// True when this, a later reading of the same usage as `other`, counted more: first by the token figure,
  /// then by the five counts together.
  [[nodiscard]] bool countsMoreThan(const UsageEventView& other) const;
  [[nodiscard]] UsageEvent toEvent() const;
};

/// One turn, or one usage snapshot, of one agent session, as a usage provider read it. Counts are tokens as
/// the source reports them (a source may count cached tokens inside input); money is US dollars.
struct UsageEvent {
  std::string id;  ///< unique, chosen by the provider
  AgentType agentType = AgentType::custom;
  std::string sessionId;
  std::optional<std::string> turnId{};   ///< the turn or message, when the source names it
  std::optional<std::string> modelId{};  ///< as the source spells it
  std::optional<std::int64_t> inputTokens{};
  std::optional<std::int64_t> outputTokens{};
  std::optional<std::int64_t> cachedTokens{};
  std::optional<std::int64_t> cacheWriteTokens{};
  std::optional<std::int64_t> reasoningTokens{};
  std::optional<std::int64_t> totalTokens{};
  std::optional<std::int64_t> contextWindow{};
  std::optional<double> costEstimateUSD{};
  std::optional<double> quotaRemainingPercent{};  ///< of the account, 0 to 100
  Instant timestamp{};
  std::string source;  ///< tag of the provider

  /// How every new event is built: without `totalTokens` it gets input + output + reasoning (saturating), if
  /// that is at least 1. Cached and cache-write tokens are never part of it. An event that is read back from
  /// a document is taken as it stands.
  [[nodiscard]] static UsageEvent make(UsageEvent fields);

  [[nodiscard]] UsageEventView view() const;
  [[nodiscard]] std::optional<std::int64_t> effectiveTotalTokens() const {
    return view().effectiveTotalTokens();
  }
  /// The filled part of the context window, 0 to 1; absent without a window of at least 1 or without tokens.
  [[nodiscard]] std::optional<double> contextUtilization() const;
  /// Two events with the same key are the same usage: agent, session and turn; without a turn, agent,
  /// session, time and total.
  [[nodiscard]] std::string deduplicationKey() const;
  bool operator==(const UsageEvent&) const = default;
};

}  // namespace vimbrel
