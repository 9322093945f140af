// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

struct RunOptions {
  std::string program;      ///< what this program was called as
  std::string worldFile;    ///< a simulated machine's description; empty for this machine
  bool linesOnly = false;   ///< a line per change even on a terminal
  bool logDetails = false;  ///< debug messages too
};

/// `vimbrel run`: the background process, in the foreground, until a signal or the user ends it. Returns the
/// exit status.
int runCommand(const RunOptions& options, const std::string& version);

/// `vimbrel run --install-service`: has the user's service manager start it at login, instead of the desktop.
int installServiceCommand();

}  // namespace vimbrel
