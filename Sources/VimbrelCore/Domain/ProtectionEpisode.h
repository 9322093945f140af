// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <expected>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/AgentType.h"
#include "Domain/DecodeError.h"
#include "Domain/SafetyBlock.h"
#include "Support/Instant.h"

namespace vimbrel {

/// How a time of protection ended.
enum class EpisodeEnding : std::uint8_t {
  ongoing,
  finished,     ///< what held it was over: agents, commands, the user's own hold
  blocked,      ///< a safety block, or the user's own switch, cut it
  stopped,      ///< the application was stopped
  interrupted,  ///< the application or the machine ended without a word; the end is when it was last seen
};

[[nodiscard]] std::string_view rawValue(EpisodeEnding ending);

/// How many agents were at work from a moment on.
struct AgentCountSample {
  Instant at{};
  std::int64_t count = 0;
  bool operator==(const AgentCountSample&) const = default;
};

/// One time during which the machine was held awake, from the first hold to the first decision that is none.
struct ProtectionEpisode {
  Instant startedAt{};
  Instant endedAt{};  ///< while it goes on: when it was last seen
  EpisodeEnding ending = EpisodeEnding::ongoing;
  std::optional<SafetyBlock> block;            ///< what cut it
  std::vector<std::string> reasons;            ///< each once, in the order in which they first held
  std::map<AgentType, double> workingSeconds;  ///< how long each agent was at work in it
  std::vector<AgentCountSample> counts;        ///< each change of the number of working agents
  bool wasDeepHoldWanted = false;              ///< the lid was to be covered, too
  bool wasLidCovered = false;                  ///< and at some time it was
  double unheldSeconds = 0;                    ///< of its time, how long no mechanism granted the hold
  std::optional<std::int64_t> batteryAtStart;  ///< percent
  std::optional<std::int64_t> batteryAtEnd;
  bool operator==(const ProtectionEpisode&) const = default;

  [[nodiscard]] double seconds() const { return (endedAt - startedAt).count(); }
  /// Of its seconds, those in which the machine was really held; at least 0.
  [[nodiscard]] double heldSeconds() const { return std::max(seconds() - unheldSeconds, 0.0); }
  /// No mechanism ever granted the hold: nothing was protected, whatever was meant. Less than a second counts
  /// as never.
  [[nodiscard]] bool wasNeverHeld() const { return unheldSeconds > 0 && heldSeconds() < 1; }
};

/// Totals over episodes.
struct ProtectionTotals {
  std::int64_t episodes = 0;
  double protectedSeconds = 0;                        ///< without those in which no hold was granted
  std::int64_t safetyCutoffs = 0;                     ///< ended by a block that guards the machine itself
  std::map<AgentType, std::int64_t> sleepsPrevented;  ///< held episodes in which it was at work
  bool operator==(const ProtectionTotals&) const = default;
};

[[nodiscard]] ProtectionTotals totalsOf(const std::vector<ProtectionEpisode>& episodes);

/// Keys are the field names; dates are ISO 8601; absent fields are left out.
[[nodiscard]] nlohmann::ordered_json toJson(const ProtectionEpisode& episode);
[[nodiscard]] std::expected<ProtectionEpisode, DecodeError> protectionEpisodeFromJson(
    const nlohmann::json& value);
[[nodiscard]] nlohmann::ordered_json toJson(const ProtectionTotals& totals);

}  // namespace vimbrel
