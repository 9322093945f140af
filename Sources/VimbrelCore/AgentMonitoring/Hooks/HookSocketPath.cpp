// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookSocketPath.h"

#include "Support/Directories.h"

namespace vimbrel {

std::string defaultHookSocketPath() {
  return directories::applicationSupport().append(hookSocketBelowApplicationSupport);
}

}  // namespace vimbrel
