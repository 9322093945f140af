// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// OpenCode: a plugin of ours that it loads.
class OpenCodeAdapter final : public AgentAdapter {
 public:
  explicit OpenCodeAdapter(AgentEnvironment environment) : environment_(std::move(environment)) {}
  [[nodiscard]] AgentType agentType() const override { return AgentType::opencode; }
  [[nodiscard]] IntegrationType integrationType() const override { return IntegrationType::plugin; }
  [[nodiscard]] std::optional<std::string> targetConfigPath() const override {
    return "~/.config/opencode/plugins/vimbrel.js";
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
