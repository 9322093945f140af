// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vimbrel {

/// The channel through which an agent session, or an agent's integration, is observed.
enum class IntegrationType : std::uint8_t { lifecycleHook, plugin, process, fallback };

/// The coding agents the system knows, in the order in which every listing shows them. There is no "unknown"
/// agent: what cannot be named is `custom`.
enum class AgentType : std::uint8_t {
  claude,
  codex,
  gemini,
  opencode,
  antigravity,
  cursor,
  windsurf,
  aider,
  custom
};

inline constexpr std::array allIntegrationTypes{IntegrationType::lifecycleHook, IntegrationType::plugin,
                                                IntegrationType::process, IntegrationType::fallback};
inline constexpr std::array allAgentTypes{AgentType::claude,   AgentType::codex,       AgentType::gemini,
                                          AgentType::opencode, AgentType::antigravity, AgentType::cursor,
                                          AgentType::windsurf, AgentType::aider,       AgentType::custom};

/// The text that stands for the value in every document and on every command line.
[[nodiscard]] std::string_view rawValue(IntegrationType type);
[[nodiscard]] std::string_view rawValue(AgentType agent);
[[nodiscard]] std::string_view displayName(IntegrationType type);
[[nodiscard]] std::string_view displayName(AgentType agent);
/// The agent's symbol, a name of the platform's symbol set.
[[nodiscard]] std::string_view iconName(AgentType agent);
[[nodiscard]] IntegrationType defaultIntegrationType(AgentType agent);
/// The application that hosts the agent when nothing better is known.
[[nodiscard]] std::string_view defaultHostAppName(AgentType agent);

/// Exact and case-sensitive; absent for any other text.
[[nodiscard]] std::optional<IntegrationType> integrationTypeFromRawValue(std::string_view text);
[[nodiscard]] std::optional<AgentType> agentTypeFromRawValue(std::string_view text);

/// Case-insensitive (ASCII), for what people and agents write; anything unknown is `custom`.
[[nodiscard]] AgentType agentTypeFromLenientText(std::string_view text);

}  // namespace vimbrel
