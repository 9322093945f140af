// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"

namespace vimbrel {

/// Writes the command lines that agents' hooks run.
class HookCommand {
 public:
  /// `sessionKey` names the member of the hook's standard input that tells two conversations apart; empty
  /// when the agent gives none.
  HookCommand(std::string_view relayPath, AgentType agent, std::string_view sessionKey);

  /// One command line for a shell. The shell's parent is the agent, which outlives it, so its process id is
  /// the agent's; an agent that runs the words without a shell passes "$PPID" as it stands, which the relay
  /// ignores for its own parent, the agent again.
  [[nodiscard]] std::string reporting(AgentState state) const;

 private:
  std::string beginning_;
  std::string ending_;
};

/// The text as one word of a POSIX shell; unchanged when no character of it needs quoting.
[[nodiscard]] std::string shellWord(std::string_view text);

}  // namespace vimbrel
