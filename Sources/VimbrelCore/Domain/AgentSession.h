// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Domain/UsageMetrics.h"
#include "Support/Instant.h"

namespace vimbrel {

/// What the system knows of one session of a coding agent. A plain value; the live ones are in the table of
/// `AgentStateCoordinator`.
struct AgentSession {
  std::string id;  ///< the hook's session id, or "proc-<agent>-<pid>" for one found by a process scan
  AgentType agentType = AgentType::custom;
  AgentState state = AgentState::unknown;
  Instant startedAt{};    ///< first event's timestamp, or when the process was first matched
  Instant lastEventAt{};  ///< staleness is measured from here
  std::optional<std::int32_t> pid;
  std::optional<std::string> cwd;
  std::optional<std::string> hostAppName;
  std::optional<std::string> lastEventDescription;  ///< one line for people
  std::optional<UsageMetrics> usageMetrics;
  IntegrationType integrationType = IntegrationType::process;
  double confidence = 0;  ///< 0 to 1: how sure it is that the session is real

  [[nodiscard]] bool isWorking() const { return isActivelyWorking(state); }
  bool operator==(const AgentSession&) const = default;
};

}  // namespace vimbrel
