// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Platform/PlatformServices.h"
#include "Support/Clock.h"
#include "System/AppCoordinator.h"
#include "System/CommandHolds.h"
#include "System/DeepHoldService.h"

namespace vimbrel {

/// What the control socket's methods read and steer. All of it outlives the server. Main queue.
struct ControlledApplication {
  AppCoordinator& coordinator;
  PlatformServices& platform;
  const Clock& clock;
  std::string version;
  /// Null where there is no closed lid to cover, and no command to hold for.
  DeepHoldService* deepHold = nullptr;
  CommandHolds* commandHolds = nullptr;
};

}  // namespace vimbrel
