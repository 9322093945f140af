// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "AgentMonitoring/UsageCoordinator.h"
#include "Control/ControlServer.h"
#include "Support/Clock.h"

namespace vimbrel {

/// `usage.today`, `usage.report`, `usage.export`, `usage.reset` and `budgets`. `usage` may be null: the
/// methods then say that usage is not recorded. `clock` must outlive the server.
void addUsageMethods(ControlServer& server, std::shared_ptr<UsageCoordinator> usage, const Clock& clock,
                     std::shared_ptr<TaskQueue> mainQueue);

}  // namespace vimbrel
