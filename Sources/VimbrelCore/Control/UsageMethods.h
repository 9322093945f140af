// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "AgentMonitoring/UsageServices.h"
#include "Control/ControlServer.h"
#include "Support/Clock.h"

namespace vimbrel {

/// The `usage.…` methods, `budgets…` and `statusLine.report` (docs/control-protocol.md). `clock` must outlive
/// the server.
void addUsageMethods(ControlServer& server, const UsageServices& usage, const Clock& clock,
                     const std::shared_ptr<TaskQueue>& mainQueue);

}  // namespace vimbrel
