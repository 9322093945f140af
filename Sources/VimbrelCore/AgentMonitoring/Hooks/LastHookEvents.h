// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "Domain/HookEvent.h"
#include "Support/Clock.h"
#include "Support/Log.h"

namespace vimbrel {

/// The latest that an agent's hooks reported.
struct LastHookEvent {
  Instant receivedAt{};  ///< by this machine's clock; the event's own time is the peer's claim
  AgentState state = AgentState::unknown;
  /// How many events of this agent arrived since the application started; 0 for one of an earlier run.
  std::uint64_t count = 0;
  bool operator==(const LastHookEvent&) const = default;
};

/// Remembers for each agent when its hooks last reported, over restarts of the application: the proof that an
/// integration works. Any thread.
class LastHookEvents {
 public:
  /// `path` is the file in which they are kept. Reads it; a file that cannot be read counts as empty.
  LastHookEvents(const Clock& clock, std::string path);

  void record(const HookEvent& event);
  [[nodiscard]] std::map<AgentType, LastHookEvent> all() const;

  /// While a session is on trial, its events are not an agent's and are not recorded.
  void beginTrial(std::string sessionId);
  void endTrial(const std::string& sessionId);
  [[nodiscard]] bool isOnTrial(const std::string& sessionId) const;

  /// Writes the file if there is something new. Main queue; a failure is logged.
  void save();

 private:
  const Clock& clock_;
  const std::string path_;
  const Logger logger_{"hooks"};
  mutable std::mutex lock_;  // Guards all below.
  std::map<AgentType, LastHookEvent> events_;
  std::multiset<std::string> trials_;
  bool isSaved_ = true;
};

}  // namespace vimbrel
