// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlSocketPath.h"

#include "Support/Directories.h"

namespace vimbrel {

std::string runDirectory() { return directories::applicationSupport() + "/Vimbrel/run"; }

std::string controlSocketPath() { return runDirectory() + "/control.sock"; }

}  // namespace vimbrel
