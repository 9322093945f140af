// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "AgentMonitoring/AgentRegistry.h"

namespace vimbrel {

/// The adapter of the agent that the user named, on this machine; null when there is none, which the user
/// was told.
[[nodiscard]] std::shared_ptr<const AgentAdapter> chooseAgent(const std::string& name);

}  // namespace vimbrel
