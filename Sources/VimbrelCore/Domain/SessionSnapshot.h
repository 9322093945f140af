// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "Domain/AgentSession.h"

namespace vimbrel {

/// The session table at one moment: a map from session id to session that never changes, ordered by id.
/// Copying it copies one pointer, and two snapshots share the sessions that did not change between them.
class SessionSnapshot {
 public:
  using Entry = std::shared_ptr<const AgentSession>;
  using Entries = std::vector<Entry>;

  SessionSnapshot() : entries_(std::make_shared<const Entries>()) {}

  /// Takes sessions in any order; of several with one id the last counts.
  static SessionSnapshot of(const std::vector<AgentSession>& sessions) {
    Entries entries;
    for (const auto& session : sessions) {
      const auto at = position(entries, session.id);
      auto entry = std::make_shared<const AgentSession>(session);
      if (at != entries.end() && (*at)->id == session.id) {
        entries[static_cast<std::size_t>(at - entries.begin())] = std::move(entry);
      } else {
        entries.insert(at, std::move(entry));
      }
    }
    return fromSorted(std::move(entries));
  }

  /// Takes entries that are ordered by id, each id once.
  static SessionSnapshot fromSorted(Entries entries) {
    SessionSnapshot snapshot;
    snapshot.entries_ = std::make_shared<const Entries>(std::move(entries));
    return snapshot;
  }

  /// Looks at entries that are ordered by id and that nobody changes while a snapshot shares them.
  static SessionSnapshot sharing(std::shared_ptr<const Entries> entries) {
    SessionSnapshot snapshot;
    snapshot.entries_ = std::move(entries);
    return snapshot;
  }

  [[nodiscard]] std::size_t size() const { return entries_->size(); }
  [[nodiscard]] bool empty() const { return entries_->empty(); }
  [[nodiscard]] const Entries& entries() const { return *entries_; }

  /// The session with this id, or null.
  [[nodiscard]] Entry find(std::string_view id) const {
    const auto at = position(*entries_, id);
    return at != entries_->end() && (*at)->id == id ? *at : nullptr;
  }

  /// The first entry whose id is not less than `id`.
  static Entries::const_iterator position(const Entries& entries, std::string_view id) {
    return std::lower_bound(entries.begin(), entries.end(), id,
                            [](const Entry& entry, std::string_view wanted) { return entry->id < wanted; });
  }

 private:
  std::shared_ptr<const Entries> entries_;
};

}  // namespace vimbrel
