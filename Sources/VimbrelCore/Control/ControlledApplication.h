// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "AgentMonitoring/Hooks/LastHookEvents.h"
#include "AgentMonitoring/UsageCoordinator.h"
#include "Platform/PlatformServices.h"
#include "Support/Clock.h"
#include "System/AppCoordinator.h"
#include "System/CommandHolds.h"
#include "System/DeepHoldService.h"
#include "System/GlobalShortcutController.h"
#include "System/PresentationValues.h"
#include "System/ProtectionHistory.h"

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
  /// Null where nothing is presented, or no usage recorded.
  PresentationValues* presentation = nullptr;
  UsageCoordinator* usage = nullptr;
  ProtectionHistory* history = nullptr;
  /// When each agent's hooks last reported; may be null.
  LastHookEvents* lastHookEvents = nullptr;
  GlobalShortcutController* shortcut = nullptr;
};

}  // namespace vimbrel
