// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/PlatformServices.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Every port on this Linux machine. Connects to both message buses and waits, up to half a second, until it
/// is known which services are there. Call on the main thread; the services belong to the main queue.
[[nodiscard]] PlatformServices makeLinuxPlatform(QueueProvider& queues);

/// True when the service of at least one mechanism answers, so that something of this machine can be held
/// (or its refusal be reported).
[[nodiscard]] bool anyMechanismAnswers(const PlatformServices& platform);

}  // namespace vimbrel
