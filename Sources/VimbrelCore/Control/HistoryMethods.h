// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// "history": the times of protection between "since" and "until", and their totals.
void addHistoryMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
