// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vimbrel {

/// What an agent session is doing.
enum class AgentState : std::uint8_t { unknown, idle, working, waiting, completed, error, stale };

inline constexpr std::array allAgentStates{AgentState::unknown, AgentState::idle,      AgentState::working,
                                           AgentState::waiting, AgentState::completed, AgentState::error,
                                           AgentState::stale};

[[nodiscard]] std::string_view rawValue(AgentState state);
[[nodiscard]] std::string_view displayLabel(AgentState state);

/// An agent that waits for its user's answer still counts as busy.
[[nodiscard]] constexpr bool isActivelyWorking(AgentState state) {
  return state == AgentState::working || state == AgentState::waiting;
}

/// Exact and case-sensitive; absent for any other text.
[[nodiscard]] std::optional<AgentState> agentStateFromRawValue(std::string_view text);

/// Case-insensitive (ASCII); anything unrecognised is `unknown`.
[[nodiscard]] AgentState agentStateFromLenientText(std::string_view text);

}  // namespace vimbrel
