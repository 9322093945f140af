// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// Claude Code: lifecycle hooks in its settings.
class ClaudeCodeAdapter final : public AgentAdapter {
 public:
  explicit ClaudeCodeAdapter(AgentEnvironment environment) : environment_(std::move(environment)) {}
  [[nodiscard]] AgentType agentType() const override { return AgentType::claude; }
  [[nodiscard]] IntegrationType integrationType() const override { return IntegrationType::lifecycleHook; }
  [[nodiscard]] std::optional<std::string> targetConfigPath() const override { return "~/.claude.json"; }
  [[nodiscard]] IntegrationStatus detect() const override;
  [[nodiscard]] std::optional<std::string> manualSetupSnippet(
      std::string_view relayBinaryPath) const override;
  [[nodiscard]] std::optional<std::string> manualSetupInstructions() const override;
  [[nodiscard]] std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const override;
  [[nodiscard]] std::vector<std::string> configuredIn() const override;

 private:
  AgentEnvironment environment_;
};

}  // namespace vimbrel
