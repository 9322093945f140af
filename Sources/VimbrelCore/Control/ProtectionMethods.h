// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// "pause", "resume", "hold" and "why". The first three take effect before they answer, with the state.
void addProtectionMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
