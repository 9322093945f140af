// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Domain/SessionSnapshot.h"

namespace vimbrel {

/// How much the session table may hold. Ids are invented by whoever writes to the hook socket, so that
/// without a bound a runaway plugin could fill the memory; real tables hold tens of sessions.
struct SessionLimits {
  std::size_t sessions = 10'000;
  std::size_t textBytes = std::size_t{32} << 20U;  ///< ids, directories, host names and descriptions together
};

/// The sessions ordered by id, with running counts, so that asking who works never walks the table. A changed
/// session is replaced by a new record and never edited: snapshots share the records, and as long as nobody
/// keeps a snapshot, the next change copies nothing at all. Not locked: the coordinator's lock guards it.
///
/// When a session does not fit, the one that nothing was heard of for longest is dropped; sessions that are
/// working go only when all are.
class SessionTable {
 public:
  using Entry = SessionSnapshot::Entry;

  explicit SessionTable(SessionLimits limits) : limits_(limits) {}

  [[nodiscard]] const SessionSnapshot::Entries& entries() const { return *entries_; }
  /// Shared with the one before when nothing changed in between.
  [[nodiscard]] SessionSnapshot snapshot() const { return SessionSnapshot::sharing(entries_); }
  [[nodiscard]] std::optional<std::size_t> indexOf(std::string_view id) const;

  [[nodiscard]] std::size_t workingCount() const { return workingCount_; }
  /// True when a session of this agent that was not found by a process scan is working.
  [[nodiscard]] bool reportsWork(AgentType agent) const {
    return reportedWorking_[static_cast<std::size_t>(agent)] > 0;
  }

  /// Adds the session or replaces the one with its id, and makes room if need be. Counts as hearing of it.
  void store(AgentSession session);
  /// Replaces the session at `index` by one with the same id, without hearing of it.
  void replace(std::size_t index, AgentSession session);
  void markHeard(std::size_t index);
  void remove(std::size_t index);
  void clear();

  /// How many sessions were dropped to make room, ever.
  [[nodiscard]] std::uint64_t droppedCount() const { return dropped_; }

 private:
  void count(const AgentSession& session, bool added);
  void makeRoom();
  SessionSnapshot::Entries& writable();
  /// The first to go comes first: sessions at rest before those at work, then by when they were heard of.
  using Urgency = std::pair<bool, std::uint64_t>;
  [[nodiscard]] Urgency urgencyOf(std::size_t index) const {
    return {(*entries_)[index]->isWorking(), heard_[index]};
  }

  const SessionLimits limits_;
  std::shared_ptr<SessionSnapshot::Entries> entries_ = std::make_shared<SessionSnapshot::Entries>();
  std::vector<std::uint64_t>
      heard_;  // For each entry, when it was last heard of, in calls; peers set no part of it.
  std::uint64_t clock_ = 0;
  std::uint64_t dropped_ = 0;
  std::size_t textBytes_ = 0;
  std::size_t workingCount_ = 0;
  std::array<std::size_t, allAgentTypes.size()> reportedWorking_{};
  std::map<Urgency, std::string> order_;  // the ids, so that a full table need not be searched
};

}  // namespace vimbrel
