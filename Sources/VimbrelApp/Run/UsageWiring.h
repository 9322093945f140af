// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "AgentMonitoring/UsageCoordinator.h"
#include "Support/Clock.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The recording of usage over this user's agents and this user's store. `queues` and `clock` must outlive
/// it.
[[nodiscard]] std::shared_ptr<UsageCoordinator> makeUsageCoordinator(QueueProvider& queues,
                                                                     const Clock& clock);

}  // namespace vimbrel
