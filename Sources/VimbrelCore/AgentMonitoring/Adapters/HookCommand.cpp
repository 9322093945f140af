// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/HookCommand.h"

#include <algorithm>

namespace vimbrel {

std::string shellWord(std::string_view text) {
  const auto isPlain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_-./+,:@%").find(c) != std::string_view::npos;
  };
  if (!text.empty() && std::all_of(text.begin(), text.end(), isPlain)) return std::string(text);
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  return word + "'";
}

HookCommand::HookCommand(const RelayCall& relay, AgentType agent, std::string sessionKey, Process process)
    : sessionKey_(std::move(sessionKey)),
      beginning_(shellWord(relay.path) + " --agent " + std::string(rawValue(agent)) + " --state "),
      ending_(" --pid $PPID") {
  if (process == Process::none) ending_ += " --no-pid";
  if (!sessionKey_.empty()) ending_ += " --session-key " + sessionKey_;
  if (!relay.socket.empty()) ending_ += " --socket " + shellWord(relay.socket);
}

std::string HookCommand::reporting(AgentState state) const {
  return beginning_ + std::string(rawValue(state)) + ending_;
}

void HookCommand::describe(CurrentSetup& setup, std::initializer_list<AgentState> states) const {
  setup.sessionKey = sessionKey_;
  for (const auto state : states) setup.reports.push_back({state, reporting(state)});
}

}  // namespace vimbrel
