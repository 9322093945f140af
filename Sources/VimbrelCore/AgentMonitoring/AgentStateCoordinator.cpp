// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/AgentStateCoordinator.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Support/PrintableText.h"

namespace vimbrel {
namespace {

constexpr double scanConfidence = 0.6;
constexpr std::chrono::minutes dropLogInterval{1};
constexpr Seconds interruptionSkew{60};

AgentState stateOf(bool isWorking) { return isWorking ? AgentState::working : AgentState::idle; }

std::string sessionIdOf(std::string_view prefix, AgentType agent, std::int32_t pid) {
  return std::string(prefix) + std::string(rawValue(agent)) + "-" + std::to_string(pid);
}

std::string withPid(std::string_view text, std::int32_t pid) {
  return std::string(text) + " (PID " + std::to_string(pid) + ")";
}

AgentSession newProcessSession(std::string id, AgentType agent, std::int32_t pid, Instant now,
                               double confidence) {
  AgentSession session;
  session.id = std::move(id);
  session.agentType = agent;
  session.startedAt = session.lastEventAt = now;
  session.pid = pid;
  session.integrationType = IntegrationType::process;
  session.confidence = confidence;
  return session;
}

void setDefaultHost(AgentSession& session, AgentType agent) {
  if (!session.hostAppName) session.hostAppName = std::string(defaultHostAppName(agent));
}

/// A peer's timestamp can lie any distance back.
long wholeSeconds(double seconds) {
  constexpr double limit = 9e18;
  return static_cast<long>(std::clamp(seconds, -limit, limit));
}

}  // namespace

/// What is told to the delegate once the lock is released.
struct AgentStateCoordinator::Notice {
  SessionSnapshot sessions;
  std::optional<Instant> stoppedAt;
  std::weak_ptr<AgentStateCoordinatorDelegate> delegate;
  std::uint64_t dropped = 0;  // sessions dropped since this was last logged, when it is due
};

AgentStateCoordinator::AgentStateCoordinator(const Clock& clock, SessionLimits limits)
    : clock_(clock), table_(limits) {}

SessionSnapshot AgentStateCoordinator::sessions() const {
  const std::lock_guard guard(lock_);
  return table_.snapshot();
}

std::optional<Instant> AgentStateCoordinator::lastActiveAgentStoppedAt() const {
  const std::lock_guard guard(lock_);
  return lastActiveAgentStoppedAt_;
}

std::size_t AgentStateCoordinator::activeWorkingCount() const {
  const std::lock_guard guard(lock_);
  return table_.workingCount();
}

void AgentStateCoordinator::setDelegate(std::weak_ptr<AgentStateCoordinatorDelegate> delegate) {
  const std::lock_guard guard(lock_);
  delegate_ = std::move(delegate);
}

void AgentStateCoordinator::setOnHookEvent(std::function<void(const HookEvent&)> handler) {
  auto shared =
      handler ? std::make_shared<const std::function<void(const HookEvent&)>>(std::move(handler)) : nullptr;
  const std::lock_guard guard(lock_);
  onHookEvent_ = std::move(shared);
}

void AgentStateCoordinator::setStaleSessionTTL(Seconds ttl) {
  const std::lock_guard guard(lock_);
  staleSessionTTL_ = ttl;
}

Seconds AgentStateCoordinator::staleSessionTTL() const {
  const std::lock_guard guard(lock_);
  return staleSessionTTL_;
}

AgentStateCoordinator::StopTimeChange AgentStateCoordinator::applyStopTimeRule(bool workedBefore,
                                                                               Instant reference) {
  if (table_.workingCount() > 0) {
    const bool wasSet = lastActiveAgentStoppedAt_.has_value();
    lastActiveAgentStoppedAt_.reset();
    return wasSet ? StopTimeChange::cleared : StopTimeChange::none;
  }
  if (!workedBefore) return StopTimeChange::none;
  lastActiveAgentStoppedAt_ = reference;
  return StopTimeChange::set;
}

AgentStateCoordinator::Notice AgentStateCoordinator::noticeLocked() {
  Notice notice{table_.snapshot(), lastActiveAgentStoppedAt_, delegate_, 0};
  if (table_.droppedCount() != droppedLogged_) {
    const auto now = clock_.monotonic();
    if (!droppedLoggedAt_ || now - *droppedLoggedAt_ >= dropLogInterval) {
      notice.dropped = table_.droppedCount() - std::exchange(droppedLogged_, table_.droppedCount());
      droppedLoggedAt_ = now;
    }
  }
  return notice;
}

void AgentStateCoordinator::deliver(const Notice& notice) const {
  if (notice.dropped > 0) {
    logger_.error("The session table is full: dropped %ld sessions, the longest silent first",
                  static_cast<long>(notice.dropped));
  }
  if (const auto delegate = notice.delegate.lock()) {
    delegate->agentSessionsDidChange(notice.sessions, notice.stoppedAt);
  }
}

void AgentStateCoordinator::logStop(Instant reference) const {
  logger_.info("All active agent sessions stopped. Debounce timer started at %s",
               formatIso8601(reference, true).c_str());
}

void AgentStateCoordinator::didReceiveHookEvent(const HookEvent& event) {
  Notice notice;
  StopTimeChange stop{};
  std::shared_ptr<const std::function<void(const HookEvent&)>> handler;
  {
    const std::lock_guard guard(lock_);
    const bool workedBefore = table_.workingCount() > 0;
    AgentSession session;
    if (const auto index = table_.indexOf(event.sessionId)) {
      session = *table_.entries()[*index];
    } else {
      session.id = event.sessionId;
      session.agentType = event.agent;
      session.startedAt = event.timestamp;
      session.integrationType = defaultIntegrationType(event.agent);
      session.confidence = 1.0;
    }
    session.state = event.state;
    session.lastEventAt = event.timestamp;
    session.lastEventDescription = "State: " + std::string(displayLabel(event.state)) + " via " +
                                   std::string(displayName(session.integrationType));
    setDefaultHost(session, event.agent);
    if (event.pid) session.pid = event.pid;
    if (event.cwd) session.cwd = event.cwd;
    table_.store(std::move(session));
    stop = applyStopTimeRule(workedBefore, event.timestamp);
    notice = noticeLocked();
    handler = onHookEvent_;
  }
  if (stop == StopTimeChange::set) logStop(event.timestamp);
  if (logger_.enabled(LogLevel::info)) {
    logger_.info("Updated session %s: agent=%s state=%s", printableText(event.sessionId).c_str(),
                 rawValue(event.agent).data(), rawValue(event.state).data());
  }
  if (handler) (*handler)(event);
  deliver(notice);
}

std::optional<std::size_t> AgentStateCoordinator::interruptedLocked(
    const TurnInterruption& interruption) const {
  std::optional<std::size_t> inDirectory;
  int found = 0;
  for (std::size_t i = 0; i < table_.entries().size(); ++i) {
    const auto& session = *table_.entries()[i];
    if (session.agentType != interruption.agent || session.integrationType == IntegrationType::process)
      continue;
    if (!session.isWorking() || session.lastEventAt >= interruption.at) continue;
    if (session.id == interruption.sessionId) return i;
    if (!session.cwd || session.cwd != interruption.directory) continue;
    inDirectory = i;
    ++found;
  }
  return found == 1 ? inDirectory : std::nullopt;
}

void AgentStateCoordinator::turnInterrupted(const TurnInterruption& interruption) {
  const auto now = clock_.now();
  // A log from the future says nothing about what was heard meanwhile.
  if (interruption.at > now + interruptionSkew) return;
  Notice notice;
  StopTimeChange stop{};
  {
    const std::lock_guard guard(lock_);
    const auto index = interruptedLocked(interruption);
    if (!index) return;
    const bool workedBefore = table_.workingCount() > 0;
    auto session = *table_.entries()[*index];
    session.state = AgentState::idle;
    session.lastEventAt = interruption.at;
    session.lastEventDescription = "The turn was interrupted";
    table_.store(std::move(session));
    stop = applyStopTimeRule(workedBefore, now);
    notice = noticeLocked();
  }
  if (stop == StopTimeChange::set) logStop(now);
  deliver(notice);
}

void AgentStateCoordinator::syncProcessSessions(const std::vector<ProcessMatch>& activeMatches) {
  std::vector<std::int32_t> pids;
  pids.reserve(activeMatches.size());
  for (const auto& match : activeMatches) pids.push_back(match.pid);
  std::sort(pids.begin(), pids.end());
  const auto now = clock_.now();

  Notice notice;
  StopTimeChange stop{};
  {
    const std::lock_guard guard(lock_);
    const bool workedBefore = table_.workingCount() > 0;
    const auto droppedBefore = table_.droppedCount();
    bool changed = false;
    for (std::size_t i = table_.entries().size(); i-- > 0;) {
      const auto& session = *table_.entries()[i];
      if (session.integrationType != IntegrationType::process || !session.pid) continue;
      if (std::binary_search(pids.begin(), pids.end(), *session.pid)) continue;
      table_.remove(i);
      changed = true;
    }
    for (const auto& match : activeMatches) changed |= applyMatchLocked(match, now);
    stop = applyStopTimeRule(workedBefore, now);
    changed |= stop != StopTimeChange::none || table_.droppedCount() != droppedBefore;
    if (!changed) return;
    notice = noticeLocked();
  }
  if (stop == StopTimeChange::set) logStop(now);
  deliver(notice);
}

bool AgentStateCoordinator::applyMatchLocked(const ProcessMatch& match, Instant now) {
  if (!match.isWorking && table_.reportsWork(match.agent)) return false;
  const auto wanted = stateOf(match.isWorking);
  auto description = withPid(match.isWorking ? "CLI task running" : "Process detected", match.pid);
  auto id = sessionIdOf("proc-", match.agent, match.pid);
  const auto index = table_.indexOf(id);
  AgentSession session;
  if (!index) {
    session = newProcessSession(std::move(id), match.agent, match.pid, now, scanConfidence);
  } else {
    const auto& known = *table_.entries()[*index];
    if (known.state == wanted && known.lastEventDescription == description && known.hostAppName) {
      table_.markHeard(*index);
      return false;
    }
    session = known;
    if (known.state != wanted) session.lastEventAt = now;
  }
  const bool changed = !index || session.state != wanted;
  session.state = wanted;
  session.lastEventDescription = std::move(description);
  setDefaultHost(session, match.agent);
  table_.store(std::move(session));
  return changed;
}

void AgentStateCoordinator::registerProcessSession(AgentType agent, std::int32_t pid, bool isWorking,
                                                   double confidence) {
  const auto now = clock_.now();
  Notice notice;
  {
    const std::lock_guard guard(lock_);
    if (!isWorking && table_.reportsWork(agent)) return;
    const bool workedBefore = table_.workingCount() > 0;
    auto id = sessionIdOf("", agent, pid);
    const auto index = table_.indexOf(id);
    auto session =
        index ? *table_.entries()[*index] : newProcessSession(std::move(id), agent, pid, now, confidence);
    session.state = stateOf(isWorking);
    session.lastEventAt = now;
    session.lastEventDescription = withPid("Process active", pid);
    setDefaultHost(session, agent);
    table_.store(std::move(session));
    applyStopTimeRule(workedBefore, now);
    notice = noticeLocked();
  }
  deliver(notice);
}

void AgentStateCoordinator::removeSession(std::string_view id) {
  Notice notice;
  {
    const std::lock_guard guard(lock_);
    if (const auto index = table_.indexOf(id)) table_.remove(*index);
    notice = noticeLocked();
  }
  deliver(notice);
}

void AgentStateCoordinator::clearAllSessions() {
  Notice notice;
  {
    const std::lock_guard guard(lock_);
    table_.clear();
    lastActiveAgentStoppedAt_.reset();
    notice = noticeLocked();
  }
  deliver(notice);
}

void AgentStateCoordinator::setAgentProcesses(std::shared_ptr<AgentProcesses> processes) {
  const std::lock_guard guard(lock_);
  agentProcesses_ = std::move(processes);
}

void AgentStateCoordinator::markEndedSessions(Instant now) {
  std::shared_ptr<AgentProcesses> processes;
  {
    const std::lock_guard guard(lock_);
    processes = agentProcesses_;
  }
  const auto ended = processes ? processes->takeEnded() : std::vector<std::string>{};
  if (ended.empty()) return;
  Notice notice;
  StopTimeChange stop{};
  std::vector<std::string> marked;
  {
    const std::lock_guard guard(lock_);
    const bool workedBefore = table_.workingCount() > 0;
    for (const auto& id : ended) {
      const auto index = table_.indexOf(id);
      if (!index) continue;
      auto session = *table_.entries()[*index];
      if (session.state == AgentState::completed || session.state == AgentState::stale) continue;
      session.state = AgentState::stale;
      session.lastEventDescription = "The agent's process has ended";
      table_.replace(*index, std::move(session));
      marked.push_back(id);
    }
    if (marked.empty()) return;
    stop = applyStopTimeRule(workedBefore, now);
    notice = noticeLocked();
  }
  for (const auto& id : marked) {
    logger_.info("Session %s: its agent's process has ended. Marking stale.", printableText(id).c_str());
  }
  if (stop == StopTimeChange::set) logStop(now);
  deliver(notice);
}

void AgentStateCoordinator::sweepStaleSessions(Instant now) {
  markEndedSessions(now);
  std::vector<SessionTable::Entry> stale;
  bool hadFutureEvents = false;
  Notice notice;
  {
    const std::lock_guard guard(lock_);
    for (std::size_t i = 0; i < table_.entries().size(); ++i) {
      const auto& entry = table_.entries()[i];
      if (now < entry->lastEventAt) {
        // The sender's clock is wrong, or this one was set back. Silence counts from here: dated by its own
        // account, a session could hold for ever.
        AgentSession heardNow = *entry;
        heardNow.lastEventAt = now;
        table_.replace(i, std::move(heardNow));
        hadFutureEvents = true;
        continue;
      }
      if (!(staleSessionTTL_ < now - entry->lastEventAt)) continue;
      stale.push_back(entry);
      if (entry->state == AgentState::stale) continue;
      AgentSession marked = *entry;
      marked.state = AgentState::stale;
      table_.replace(i, std::move(marked));
    }
    if (stale.empty() && !hadFutureEvents) return;
    if (!stale.empty() && table_.workingCount() == 0 && !lastActiveAgentStoppedAt_)
      lastActiveAgentStoppedAt_ = now;
    notice = noticeLocked();
  }
  if (logger_.enabled(LogLevel::error)) {
    for (const auto& session : stale) {
      logger_.error("Session %s is stale (%lds old). Marking stale.", printableText(session->id).c_str(),
                    wholeSeconds((now - session->lastEventAt).count()));
    }
  }
  deliver(notice);
}

}  // namespace vimbrel
