// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Support/Instant.h"

namespace vimbrel {

/// `payloadTooLarge` is raised when a socket path does not fit; decoding reports its own texts.
enum class HookEventError { invalidJSON, payloadTooLarge, missingRequiredFields };

/// One lifecycle report from an agent. Token counts are those of the turn being reported.
struct HookEvent {
  std::int64_t schema = 1;
  AgentType agent = AgentType::custom;
  std::string sessionId;  ///< never empty; see `derivedSessionId`
  AgentState state = AgentState::unknown;
  Instant timestamp{};  ///< when it happened, as the sender stamped it
  std::optional<std::int32_t> pid;
  std::optional<std::string> cwd;
  std::optional<std::int64_t> inputTokens;
  std::optional<std::int64_t> outputTokens;
  std::optional<std::int64_t> cachedTokens;
  std::optional<std::int64_t> reasoningTokens;
  std::optional<std::string> model;
  std::optional<std::string> turnId;
  bool operator==(const HookEvent&) const = default;

  /// "<agent>-<pid>", or "<agent>-default" without a pid: the session of an event that names none.
  [[nodiscard]] static std::string derivedSessionId(AgentType agent, std::optional<std::int32_t> pid);

  /// The compact JSON document of the wire, slashes escaped, absent fields left out.
  [[nodiscard]] std::string toJSONData() const;

  /// Reads one document leniently, field by field: only a document that is not an object, or lacks a string
  /// "agent" or "state", fails. Any other field of another type, or a number that no 64-bit type holds, is as
  /// if it were absent; unknown keys are ignored; of a repeated key the last counts. A document of more than
  /// `maximumHookEventBytes` or nested deeper than 64 levels fails. The failure is a text for people without
  /// quotation marks. `now` is the timestamp of an event that carries none.
  [[nodiscard]] static std::expected<HookEvent, std::string> parse(std::string_view json, Instant now);
};

}  // namespace vimbrel
