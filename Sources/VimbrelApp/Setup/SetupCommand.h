// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Setup/Conversation.h"

namespace vimbrel {

struct SetupOptions {
  std::string program;     ///< what this program was called as
  bool agrees = false;     ///< takes every recommended change without asking
  bool rehearses = false;  ///< says what it would do
};

/// `vimbrel setup`: service, agents, tray and closed lid, step by step. Returns the exit status; 128 and the
/// signal's number when one ended it.
int setupCommand(const SetupOptions& options);

/// `vimbrel` alone on a terminal: how things stand, and the next step.
int greetingCommand(const std::string& version);
/// Whether a person sits at standard input and output.
[[nodiscard]] bool isOnTerminal();

}  // namespace vimbrel
