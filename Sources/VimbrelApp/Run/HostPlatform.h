// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Platform/PlatformServices.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// This machine's ports. `standIn` serves what it offers no adapter or no mechanism for; what it then seems
/// to hold is reported as simulated. The queues must outlive the ports. One file for each operating system.
[[nodiscard]] PlatformServices makeHostPlatform(QueueProvider& queues, const PlatformServices& standIn);

}  // namespace vimbrel
