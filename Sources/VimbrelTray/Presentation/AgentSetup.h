// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Domain/AgentType.h"
#include "Presentation/PublishedState.h"
#include "Presentation/Tone.h"

namespace vimbrel::desktop {

/// One agent of this machine and its connection, as the agents window lists it.
struct AgentRow {
  AgentType agent = AgentType::custom;
  std::string name;
  bool isInstalled = false;
  bool isConnected = false;
  std::string status;  ///< "Hook active", "Installed (Hooks not configured)", …
  Tone tone = Tone::dim;
  std::string version;
  std::optional<Instant> lastEventAt;
  bool operator==(const AgentRow&) const = default;
};

/// From the result of "agents". Installed ones first, those that want connecting before the others.
[[nodiscard]] std::vector<AgentRow> makeAgentRows(const nlohmann::json& result);

/// What to do to connect one agent.
struct AgentInstructions {
  std::string configPath;    ///< where the snippet goes; empty for agents without hooks
  std::string snippet;       ///< empty for agents that are watched by process
  std::string instructions;  ///< numbered lines, or a sentence
  std::string versions;      ///< which versions of the agent it fits; may be empty
  bool operator==(const AgentInstructions&) const = default;
};

/// From the result of "agents.setup": the form for today's versions, or the plain one where there is none.
[[nodiscard]] AgentInstructions makeAgentInstructions(const nlohmann::json& result);

/// Tells when an agent's first event has come since somebody began to wait for it.
class FirstEventWatch {
 public:
  /// Begins anew for an agent; `state` is how things stand.
  void begin(AgentType agent, const PublishedState& state);
  /// True from the first state on that carries an event of that agent which was not there at the beginning.
  [[nodiscard]] bool update(const PublishedState& state);
  [[nodiscard]] bool isReceived() const { return isReceived_; }

 private:
  AgentType agent_ = AgentType::custom;
  std::map<std::string, Instant> seen_;  ///< last event by session
  bool isReceived_ = false;
};

}  // namespace vimbrel::desktop
