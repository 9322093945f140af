// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// "doctor": what of the machine and of the application's own files works, and what to do about the rest.
void addDoctorMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
