// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "AgentMonitoring/AgentStateCoordinator.h"
#include "Support/VirtualTime.h"

namespace vimbrel {

inline Instant at(double seconds) { return instantFromUnixSeconds(seconds); }

inline HookEvent event(std::string id, AgentType agent, AgentState state, double seconds) {
  HookEvent made;
  made.sessionId = std::move(id);
  made.agent = agent;
  made.state = state;
  made.timestamp = at(seconds);
  return made;
}

inline ProcessMatch match(AgentType agent, std::int32_t pid, bool isWorking) {
  ProcessMatch made;
  made.agent = agent;
  made.pid = pid;
  made.isWorking = isWorking;
  return made;
}

/// A coordinator with a delegate that remembers what it was told; the clock starts at 1000.
class CoordinatorWorld {
 public:
  struct Recorder final : AgentStateCoordinatorDelegate {
    void agentSessionsDidChange(const SessionSnapshot& sessions,
                                std::optional<Instant> lastStoppedAt) override {
      ++calls;
      latest = sessions;
      stoppedAt = lastStoppedAt;
      if (reenter) reenter();
    }
    int calls = 0;
    SessionSnapshot latest;
    std::optional<Instant> stoppedAt;
    std::function<void()> reenter;
  };

  explicit CoordinatorWorld(SessionLimits limits = {}) : coordinator(time, limits) {
    coordinator.setDelegate(recorder);
  }

  [[nodiscard]] AgentSession session(std::string_view id) const {
    const auto found = coordinator.sessions().find(id);
    return found ? *found : AgentSession{};
  }
  [[nodiscard]] bool has(std::string_view id) const { return coordinator.sessions().find(id) != nullptr; }
  int takeCalls() { return std::exchange(recorder->calls, 0); }

  VirtualTime time{at(1000)};
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  AgentStateCoordinator coordinator;
};

}  // namespace vimbrel
