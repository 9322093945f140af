// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>

#include "AgentMonitoring/AgentRegistry.h"
#include "AgentMonitoring/Hooks/LastHookEvents.h"

namespace vimbrel {

/// What is known of every agent, as `vimbrel agents --json` prints it (docs/control-protocol.md). Runs the
/// detections: blocks for up to 3 seconds.
[[nodiscard]] nlohmann::ordered_json agentsDocument(const AgentRegistry& registry,
                                                    const std::map<AgentType, LastHookEvent>& lastEvents);

/// How to connect one agent, as `vimbrel agents setup --json` prints it. Reads the agent's configuration.
[[nodiscard]] nlohmann::ordered_json agentSetupDocument(const AgentAdapter& adapter, const RelayCall& relay);

/// When each agent's hooks last reported, by the agent's raw value: part of the published state.
[[nodiscard]] nlohmann::json lastEventsDocument(const std::map<AgentType, LastHookEvent>& lastEvents);

}  // namespace vimbrel
