// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AgentMonitoring/UsageServices.h"
#include "Support/Clock.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Usage and budgets over this user's agents, store and files. `queues` and `clock` must outlive them.
[[nodiscard]] UsageServices makeUsageServices(QueueProvider& queues, const Clock& clock);

}  // namespace vimbrel
