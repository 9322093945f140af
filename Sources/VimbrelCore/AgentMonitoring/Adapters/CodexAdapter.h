// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// Codex CLI: lifecycle hooks, or its notify command in older versions.
class CodexAdapter final : public AgentAdapter {
 public:
  explicit CodexAdapter(AgentEnvironment environment) : environment_(std::move(environment)) {}
  [[nodiscard]] AgentType agentType() const override { return AgentType::codex; }
  [[nodiscard]] IntegrationType integrationType() const override { return IntegrationType::lifecycleHook; }
  [[nodiscard]] std::optional<std::string> targetConfigPath() const override {
    return "~/.codex/config.toml";
  }
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
