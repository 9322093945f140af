// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// Writes the command lines that agents' hooks run.
class HookCommand {
 public:
  /// Whose process a report names. A session of an agent that is watched by its process ends with that
  /// process, as soon as a scan does not find it: where hooks are run by helpers that no scan finds, their
  /// reports must name none.
  enum class Process { agent, none };

  /// `sessionKey` names the member of the hook's standard input that tells two conversations apart; empty
  /// when the agent gives none.
  HookCommand(const RelayCall& relay, AgentType agent, std::string sessionKey,
              Process process = Process::agent);

  /// One command line for a shell. The shell's parent is the agent, which outlives it, so its process id is
  /// the agent's; an agent that runs the words without a shell passes "$PPID" as it stands, which the relay
  /// ignores for its own parent, the agent again.
  [[nodiscard]] std::string reporting(AgentState state) const;

  /// Tells `setup` which states are reported and how.
  void describe(CurrentSetup& setup, std::initializer_list<AgentState> states) const;

 private:
  std::string sessionKey_;
  std::string beginning_;
  std::string ending_;
};

/// The text as one word of a POSIX shell; unchanged when no character of it needs quoting.
[[nodiscard]] std::string shellWord(std::string_view text);

}  // namespace vimbrel
