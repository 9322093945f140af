// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Setup/Conversation.h"

namespace vimbrel {

/// How a step of `vimbrel setup` ended.
struct StepReport {
  enum class Outcome {
    ready,      ///< it is as it should be, whoever made it so
    skipped,    ///< it was the person's wish
    notNeeded,  ///< there is nothing to do here
    open,       ///< something is left that only the person can do
    failed,
    stopped,  ///< the person ended the talk
  };
  Outcome outcome = Outcome::ready;
  std::string text;  ///< for the summary, one line
};

// Each looks at what is there, says so, and proposes what is missing; run again, it finds its own work and
// proposes nothing. None of them writes a file of another program.

/// Vimbrel runs, now and from each login on: by the service manager or by the desktop, never both.
[[nodiscard]] StepReport serviceStep(Conversation& talk);
/// Every agent that is here reports. `relay` is what agents' configurations are to call.
[[nodiscard]] StepReport agentStep(Conversation& talk, const std::string& relay);
/// The item in the desktop's panel; `tray` is its program, empty when it is not installed.
[[nodiscard]] StepReport trayStep(Conversation& talk, const std::string& tray);
/// The closed lid is covered.
[[nodiscard]] StepReport helperStep(Conversation& talk);

/// Whether an application answers on the control socket.
[[nodiscard]] bool isVimbrelRunning();

}  // namespace vimbrel
