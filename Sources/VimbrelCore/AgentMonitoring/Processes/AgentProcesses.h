// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/HookEvent.h"
#include "Platform/ProcessAncestry.h"
#include "Support/Clock.h"

namespace vimbrel {

/// Knows which process is the agent behind each hook session, and tells when it has ended: an agent that was
/// killed, or whose terminal was closed, runs no last hook.
///
/// The agent is looked for among the ancestors of the process that sent an event, by its program's name; of
/// several the outermost counts. A shell is never one. A process counts as the agent only once it has proved
/// to last, because agents run their hooks through helpers that live for a moment: it was half a minute old,
/// or two events seconds apart came from it. Sessions for which nothing was found are simply left alone. Any
/// thread.
class AgentProcesses {
 public:
  static constexpr std::size_t mostSessions = 512;

  /// `clock` must outlive the object.
  AgentProcesses(std::shared_ptr<ProcessAncestry> ancestry, const Clock& clock)
      : ancestry_(std::move(ancestry)), clock_(clock) {}

  /// Takes note of an event while the process that sent it, `sender`, still waits for the answer. Looks at
  /// processes when the session is new, and then every few seconds at most.
  void heard(const HookEvent& event, std::int32_t sender);

  /// The sessions whose agent has ended since the last call.
  [[nodiscard]] std::vector<std::string> takeEnded();

 private:
  struct Session {
    std::optional<ProcessIdentity> agent;
    std::chrono::nanoseconds foundAt{};
    std::chrono::nanoseconds lookedAt{};
    bool hasLasted = false;
  };
  void makeRoom();

  const std::shared_ptr<ProcessAncestry> ancestry_;
  const Clock& clock_;
  std::mutex lock_;
  std::map<std::string, Session, std::less<>> sessions_;
};

/// Whether the command line is this agent's own program, run directly or by an interpreter. Never true of a
/// shell, whatever it was told to run.
[[nodiscard]] bool isAgentProgram(AgentType agent, std::string_view command);

}  // namespace vimbrel
