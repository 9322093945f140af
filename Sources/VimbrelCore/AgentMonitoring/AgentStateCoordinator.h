// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/HookEventReceiving.h"
#include "AgentMonitoring/ProcessMonitoring.h"
#include "Domain/SessionSnapshot.h"
#include "Support/Clock.h"
#include "Support/Log.h"

namespace vimbrel {

/// Hears of every change of the session table. Held weakly; called on the caller's thread with no lock held.
class AgentStateCoordinatorDelegate {
 public:
  virtual ~AgentStateCoordinatorDelegate() = default;
  virtual void agentSessionsDidChange(const SessionSnapshot& sessions,
                                      std::optional<Instant> lastStoppedAt) = 0;
};

/// Owns the one table of live agent sessions, fed by hook events and process scans. Any thread.
class AgentStateCoordinator final : public HookEventReceiverDelegate {
 public:
  explicit AgentStateCoordinator(const Clock& clock);

  [[nodiscard]] SessionSnapshot sessions() const;
  /// When the table last went from at least one working session to none; absent while one is working.
  [[nodiscard]] std::optional<Instant> lastActiveAgentStoppedAt() const;
  [[nodiscard]] std::size_t activeWorkingCount() const;

  void setDelegate(std::weak_ptr<AgentStateCoordinatorDelegate> delegate);
  /// Receives every hook event after it was applied, on the caller's thread: the usage subsystem's hand-off.
  void setOnHookEvent(std::function<void(const HookEvent&)> handler);
  void setStaleSessionTTL(Seconds ttl);

  void didReceiveHookEvent(const HookEvent& event) override;
  void syncProcessSessions(const std::vector<ProcessMatch>& activeMatches);
  void registerProcessSession(AgentType agent, std::int32_t pid, bool isWorking, double confidence);
  void removeSession(std::string_view id);
  void sweepStaleSessions(Instant now);
  void clearAllSessions();

 private:
  const Clock& clock_;
};

}  // namespace vimbrel
