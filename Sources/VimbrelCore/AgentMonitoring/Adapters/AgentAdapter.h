// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Platform/RunningApplications.h"
#include "Support/Subprocess.h"

namespace vimbrel {

/// What is known of one agent on this machine and of our connection to it.
struct IntegrationStatus {
  bool isInstalled = false;
  /// What the agent's own executable reports, or a fixed word where it cannot be asked.
  std::optional<std::string> agentVersion;
  IntegrationType integrationType = IntegrationType::process;
  /// The relay stands in the agent's configuration, the plugin exists, or the application is running.
  bool isIntegrationActive = false;
  std::optional<std::string> backupPath;  ///< never set: no adapter writes a backup
  std::string statusMessage;              ///< one line for people
  bool operator==(const IntegrationStatus&) const = default;
};

/// How an agent's hooks are to call the relay.
struct RelayCall {
  std::string path;    ///< the relay on the machine where the agent runs
  std::string socket;  ///< the hook socket there; empty for the relay's own choice
};

/// One thing that an agent reports through its hooks.
struct HookReport {
  AgentState state = AgentState::unknown;
  std::string commandLine;  ///< for a shell, as the agent runs it
  bool operator==(const HookReport&) const = default;
};

/// The form in which today's versions of an agent read their hooks.
struct CurrentSetup {
  std::string configPath;     ///< the file it belongs in, with "~" for the home directory
  std::string snippet;        ///< the file's whole contents, if there is no such file yet
  std::string format;         ///< "json", "toml", "yaml", "javascript"
  std::string agentVersions;  ///< which versions it fits, for people
  std::string instructions;   ///< what to do with it, numbered lines
  /// What the agent reports once this is in place, each state once.
  std::vector<HookReport> reports;
  /// The member of the JSON document on a hook's standard input that names the session; empty when the
  /// agent gives none.
  std::string sessionKey;
  bool operator==(const CurrentSetup&) const = default;
};

/// The machine as the adapters look at it.
struct AgentEnvironment {
  std::string home;                 ///< absolute
  std::optional<std::string> path;  ///< the search path of executables, as in $PATH
  std::string configurationHome;    ///< $XDG_CONFIG_HOME or its default
  std::string dataHome;             ///< $XDG_DATA_HOME or its default
  std::string claudeConfiguration;  ///< the first directory of $CLAUDE_CONFIG_DIR, or "~/.claude"
  std::string codexHome;            ///< $CODEX_HOME or "~/.codex"
  std::vector<std::string> applicationDirectories;  ///< where desktop entries stand, most important first
  std::shared_ptr<RunningApplications> runningApplications;  ///< may be null: nothing is known to run
  /// Prefix of the absolute places that are looked at ("/usr/share/…"); empty on a real machine.
  std::string systemRoot;
  /// What asking an executable for its version may take.
  SubprocessBounds probeBounds{.timeout = std::chrono::seconds{3}, .maximumOutputBytes = 4096};

  /// A value of the environment; absent when it is not set.
  using Variables = std::function<std::optional<std::string>(const char* name)>;
  /// The names of the variables that say where agents and their configurations are.
  static const std::vector<const char*>& variableNames();
  /// This machine for the user of this process, by these variables.
  static AgentEnvironment fromVariables(const Variables& variables);
  /// The same by the process's own environment.
  static AgentEnvironment fromProcess();

  /// The path with "~" in place of the home directory.
  [[nodiscard]] std::string shown(const std::string& path) const;
};

/// One agent: is it here, is it connected, and what must its user do to connect it. An adapter reads and
/// never writes. Immutable, so any number of threads may use it; `detect` may block for the length of one
/// version probe.
class AgentAdapter {
 public:
  virtual ~AgentAdapter() = default;
  [[nodiscard]] virtual AgentType agentType() const = 0;
  [[nodiscard]] virtual IntegrationType integrationType() const = 0;
  /// The configuration file the user is to edit, with "~" for the home directory; absent when there is none.
  [[nodiscard]] virtual std::optional<std::string> targetConfigPath() const = 0;
  /// Never fails: what cannot be read counts as not there.
  [[nodiscard]] virtual IntegrationStatus detect() const = 0;
  /// The text to paste, with the relay's path filled in as it stands; absent for agents that are watched by
  /// process.
  [[nodiscard]] virtual std::optional<std::string> manualSetupSnippet(
      std::string_view relayBinaryPath) const = 0;
  [[nodiscard]] virtual std::optional<std::string> manualSetupInstructions() const = 0;
  /// The form for today's versions; absent for an agent that has no hooks.
  [[nodiscard]] virtual std::optional<CurrentSetup> currentSetup(const RelayCall& relay) const = 0;
  /// The configuration files that name the relay, at the places of today's versions and of earlier ones, with
  /// "~" for the home directory.
  [[nodiscard]] virtual std::vector<std::string> configuredIn() const = 0;
};

}  // namespace vimbrel
