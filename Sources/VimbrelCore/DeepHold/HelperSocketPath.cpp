// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/HelperSocketPath.h"

#include <unistd.h>

#include "Support/Directories.h"

namespace vimbrel {

std::string userHelperSocketPath() {
  return directories::applicationSupport() + "/Vimbrel/run/vimbrel-helper.sock";
}

std::string chooseHelperSocketPath() {
  return ::access(systemHelperSocketPath, F_OK) == 0 ? systemHelperSocketPath : userHelperSocketPath();
}

}  // namespace vimbrel
