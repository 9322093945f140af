// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentType.h"

#include "Domain/RawValueTable.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct IntegrationRow {
  IntegrationType value;
  std::string_view raw;
  std::string_view display;
};

constexpr std::array<IntegrationRow, 4> integrations{{
    {IntegrationType::lifecycleHook, "lifecycle", sentence("Lifecycle Hook")},
    {IntegrationType::plugin, "plugin", sentence("Plugin")},
    {IntegrationType::process, "process", sentence("Process Watcher")},
    {IntegrationType::fallback, "fallback", sentence("Fallback")},
}};

struct AgentRow {
  AgentType value;
  std::string_view raw;
  std::string_view display;
  std::string_view icon;
  IntegrationType integration;
  std::string_view host;
};

constexpr std::array<AgentRow, 9> agents{{
    {AgentType::claude, "claude", "Claude Code", "sparkles", IntegrationType::lifecycleHook, "Terminal"},
    {AgentType::codex, "codex", "Codex CLI", "terminal", IntegrationType::lifecycleHook, "Terminal"},
    {AgentType::gemini, "gemini", "Gemini CLI", "bolt.fill", IntegrationType::lifecycleHook, "Terminal"},
    {AgentType::opencode, "opencode", "OpenCode", "chevron.left.forwardslash.chevron.right",
     IntegrationType::plugin, "OpenCode"},
    {AgentType::antigravity, "antigravity", "Antigravity", "circle.hexagongrid.fill",
     IntegrationType::process, "Antigravity"},
    {AgentType::cursor, "cursor", "Cursor", "cursorarrow.rays", IntegrationType::process, "Cursor"},
    {AgentType::windsurf, "windsurf", "Windsurf", "wind", IntegrationType::process, "Windsurf"},
    {AgentType::aider, "aider", "Aider", "wrench.and.screwdriver", IntegrationType::process, "Terminal"},
    {AgentType::custom, "custom", sentence("Custom Agent"), "cpu", IntegrationType::process, "Terminal"},
}};

static_assert(rowsFollowDeclaration(integrations));
static_assert(rowsFollowDeclaration(agents));

}  // namespace

std::string_view rawValue(IntegrationType type) { return rowOf(integrations, type).raw; }
std::string_view rawValue(AgentType agent) { return rowOf(agents, agent).raw; }
std::string_view displayName(IntegrationType type) { return rowOf(integrations, type).display; }
std::string_view displayName(AgentType agent) { return rowOf(agents, agent).display; }
std::string_view iconName(AgentType agent) { return rowOf(agents, agent).icon; }
IntegrationType defaultIntegrationType(AgentType agent) { return rowOf(agents, agent).integration; }
std::string_view defaultHostAppName(AgentType agent) { return rowOf(agents, agent).host; }

std::optional<IntegrationType> integrationTypeFromRawValue(std::string_view text) {
  return valueWithRaw(integrations, text);
}
std::optional<AgentType> agentTypeFromRawValue(std::string_view text) { return valueWithRaw(agents, text); }
AgentType agentTypeFromLenientText(std::string_view text) {
  return valueWithRawIgnoringCase(agents, text).value_or(AgentType::custom);
}

}  // namespace vimbrel
