// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// `agents`, `agents.setup` and `agents.trial`. `relayPath` is the installed relay; empty when there is none.
///
/// Detections ask the agents' own programs for their versions, which may take three seconds: they run on
/// threads of their own, because the queues' threads must stay free for hook events. The returned object
/// keeps these threads; its end waits for those that still run.
[[nodiscard]] std::shared_ptr<void> addAgentMethods(ControlServer& server,
                                                    const ControlledApplication& application,
                                                    const std::shared_ptr<TaskQueue>& mainQueue,
                                                    std::string relayPath);

}  // namespace vimbrel
