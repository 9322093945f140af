// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/Hooks/HookEventReceiving.h"
#include "AgentMonitoring/Processes/AgentProcesses.h"
#include "AgentMonitoring/Processes/ProcessMonitoring.h"
#include "AgentMonitoring/SessionTable.h"
#include "AgentMonitoring/TurnInterruption.h"
#include "Domain/SessionSnapshot.h"
#include "Support/Clock.h"
#include "Support/Log.h"

namespace vimbrel {

/// Hears of every change of the session table. Held weakly; called on the caller's thread with no lock held.
/// Callers on two threads may deliver their changes in either order: who needs the latest asks the
/// coordinator.
class AgentStateCoordinatorDelegate {
 public:
  virtual ~AgentStateCoordinatorDelegate() = default;
  virtual void agentSessionsDidChange(const SessionSnapshot& sessions,
                                      std::optional<Instant> lastStoppedAt) = 0;
};

/// Owns the one table of live agent sessions, fed by hook events and process scans, and knows since when no
/// agent works. It takes no decisions. Any thread.
///
/// The table is bounded (`SessionLimits`); when a new session does not fit, the longest-silent one that is
/// not working is dropped, and a working one only when all are. That is logged at most once a minute.
class AgentStateCoordinator final : public HookEventReceiverDelegate {
 public:
  explicit AgentStateCoordinator(const Clock& clock, SessionLimits limits = {});

  /// Costs one pointer's copy when nothing changed since the last snapshot.
  [[nodiscard]] SessionSnapshot sessions() const;
  /// When the table last went from at least one working session to none; absent while one is working.
  [[nodiscard]] std::optional<Instant> lastActiveAgentStoppedAt() const;
  [[nodiscard]] std::size_t activeWorkingCount() const;

  void setDelegate(std::weak_ptr<AgentStateCoordinatorDelegate> delegate);
  /// Receives every hook event after it was applied, on the caller's thread and before the delegate hears of
  /// it: the usage subsystem's hand-off.
  void setOnHookEvent(std::function<void(const HookEvent&)> handler);
  /// The silence after which a session is marked stale: 15 minutes unless set.
  void setStaleSessionTTL(Seconds ttl);
  [[nodiscard]] Seconds staleSessionTTL() const;

  /// Where the sweep learns which sessions' agents have ended; may be null.
  void setAgentProcesses(std::shared_ptr<AgentProcesses> processes);

  /// Applies one event: any state may follow any other. Always notifies.
  void didReceiveHookEvent(const HookEvent& event) override;
  /// Sets the session idle whose turn it was, unless something was heard of it since. Which one it was is
  /// told by its id, else by its directory if it is the only one at work there.
  void turnInterrupted(const TurnInterruption& interruption);
  /// Reconciles the sessions found by process scans with the latest complete scan. Notifies on change only. A
  /// scan that sees an agent idle says nothing while a hook of that agent reports work.
  void syncProcessSessions(const std::vector<ProcessMatch>& activeMatches);
  /// Creates or updates one process session outside of the scans, under the same precedence of hooks.
  void registerProcessSession(AgentType agent, std::int32_t pid, bool isWorking, double confidence);
  /// Unknown ids are ignored. Always notifies, and leaves the stop time alone.
  void removeSession(std::string_view id);
  /// Marks every session that is silent for longer than the TTL, whatever its state, on every sweep again;
  /// and those whose agent's process has ended, unless they are completed.
  void sweepStaleSessions(Instant now);
  void clearAllSessions();

 private:
  struct Notice;
  enum class StopTimeChange { none, cleared, set };

  StopTimeChange applyStopTimeRule(bool workedBefore, Instant reference);
  /// Applies one match of a scan; true when that is a change to be announced.
  bool applyMatchLocked(const ProcessMatch& match, Instant now);
  void markEndedSessions(Instant now);
  [[nodiscard]] std::optional<std::size_t> interruptedLocked(const TurnInterruption& interruption) const;
  [[nodiscard]] Notice noticeLocked();
  void deliver(const Notice& notice) const;
  void logStop(Instant reference) const;

  const Clock& clock_;
  const Logger logger_{"agents"};
  mutable std::mutex lock_;  // Guards all below.
  SessionTable table_;
  std::optional<Instant> lastActiveAgentStoppedAt_;
  Seconds staleSessionTTL_{900};
  std::weak_ptr<AgentStateCoordinatorDelegate> delegate_;
  std::shared_ptr<AgentProcesses> agentProcesses_;
  std::shared_ptr<const std::function<void(const HookEvent&)>> onHookEvent_;
  std::uint64_t droppedLogged_ = 0;
  std::optional<std::chrono::nanoseconds> droppedLoggedAt_;
};

}  // namespace vimbrel
