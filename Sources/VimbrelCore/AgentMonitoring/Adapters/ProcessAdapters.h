// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// An agent inside a desktop application: installed when one of its marker paths exists, active while it
/// runs.
class DesktopAgentAdapter : public AgentAdapter {
 public:
  [[nodiscard]] AgentType agentType() const override { return agent_; }
  [[nodiscard]] IntegrationType integrationType() const override { return IntegrationType::process; }
  [[nodiscard]] std::optional<std::string> targetConfigPath() const override { return std::nullopt; }
  [[nodiscard]] IntegrationStatus detect() const override;
  [[nodiscard]] std::optional<std::string> manualSetupSnippet(std::string_view) const override {
    return std::nullopt;
  }
  [[nodiscard]] std::vector<std::string> configuredIn() const override;

 protected:
  /// `markers` are tested in order; one that begins with "~" stands below the home directory. `program` names
  /// the application's executable, its desktop entry and its packages, in lower case. `hooksFile`, below the
  /// home directory, is where it reads its hooks.
  DesktopAgentAdapter(AgentType agent, AgentEnvironment environment, std::vector<std::string> markers,
                      std::string program, std::string hooksFile)
      : agent_(agent),
        environment_(std::move(environment)),
        markers_(std::move(markers)),
        program_(std::move(program)),
        hooksFile_(std::move(hooksFile)) {}

  /// With "~" for the home directory.
  [[nodiscard]] std::string hooksPath() const { return "~/" + hooksFile_; }

 private:
  AgentType agent_;
  AgentEnvironment environment_;
  std::vector<std::string> markers_;
  std::string program_;
  std::string hooksFile_;
};

class AntigravityAdapter final : public DesktopAgentAdapter {
 public:
  explicit AntigravityAdapter(AgentEnvironment environment);
  [[nodiscard]] std::optional<std::string> manualSetupInstructions() const override;
  [[nodiscard]] std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const override;
};

class CursorAdapter final : public DesktopAgentAdapter {
 public:
  explicit CursorAdapter(AgentEnvironment environment);
  [[nodiscard]] std::optional<std::string> manualSetupInstructions() const override;
  [[nodiscard]] std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const override;
};

class WindsurfAdapter final : public DesktopAgentAdapter {
 public:
  explicit WindsurfAdapter(AgentEnvironment environment);
  [[nodiscard]] std::optional<std::string> manualSetupInstructions() const override;
  [[nodiscard]] std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const override;
};

/// Aider: a command-line program that is recognised while it runs.
class AiderAdapter final : public AgentAdapter {
 public:
  explicit AiderAdapter(AgentEnvironment environment) : environment_(std::move(environment)) {}
  [[nodiscard]] AgentType agentType() const override { return AgentType::aider; }
  [[nodiscard]] IntegrationType integrationType() const override { return IntegrationType::process; }
  [[nodiscard]] std::optional<std::string> targetConfigPath() const override { return std::nullopt; }
  [[nodiscard]] IntegrationStatus detect() const override;
  [[nodiscard]] std::optional<std::string> manualSetupSnippet(std::string_view) const override {
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> manualSetupInstructions() const override;
  [[nodiscard]] std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const override;
  [[nodiscard]] std::vector<std::string> configuredIn() const override;

 private:
  AgentEnvironment environment_;
};

}  // namespace vimbrel
