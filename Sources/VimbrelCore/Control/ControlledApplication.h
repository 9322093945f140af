// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Platform/PlatformServices.h"
#include "Support/Clock.h"
#include "System/AppCoordinator.h"

namespace vimbrel {

/// What the control socket's methods read and steer. All of it outlives the server. Main queue.
struct ControlledApplication {
  AppCoordinator& coordinator;
  PlatformServices& platform;
  const Clock& clock;
  std::string version;
};

}  // namespace vimbrel
