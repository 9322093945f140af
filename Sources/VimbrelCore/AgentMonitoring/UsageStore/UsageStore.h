// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageLedger.h"
#include "AgentMonitoring/UsageStore/UsageStoreFiles.h"
#include "Support/Clock.h"
#include "Support/Fd.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

struct UsageStoreOptions {
  /// The store file; the journal and the lock stand beside it.
  std::string path = defaultPath();
  /// Up to this size of the file every accepted event rewrites it; above, events go to the journal.
  std::size_t wholeFileBytes = 1 << 20;
  /// The store is rewritten when the journal reaches this part of it: what is written in all stays within a
  /// small multiple of the data.
  std::size_t journalShare = 8;
  /// Accepted events are on the platter this long after `record` returned, at the latest. (They survive a
  /// crash of the process from that moment on.)
  std::chrono::milliseconds syncDelay{500};
  /// How long after a failed write the next attempt is made, if no event brings one earlier.
  std::chrono::milliseconds retryDelay{10'000};
  /// `process` leaves it to the system when data reaches the platter; for tests that kill processes.
  Durability durability = Durability::machine;

  /// "Vimbrel/usage_store.json" under the user's application support directory.
  [[nodiscard]] static std::string defaultPath();
};

/// Keeps every usage event that was accepted, the totals of every session and the keys of what has been seen,
/// in memory and in one file. Nothing is forgotten until `resetStore`.
///
/// Any thread; one lock, held for the length of an operation. `record` returns when the event is in a file; a
/// rewrite of a large store costs the caller the writing (60 ms for 100,000 events), never the flushing,
/// which happens on the queue.
class UsageStore {
 public:
  /// Opens the store and loads it. Fails, with a sentence to show, when another process has it open. A file
  /// that cannot be read leaves the store empty and is kept aside, under another name, before the first
  /// write.
  [[nodiscard]] static std::expected<std::unique_ptr<UsageStore>, std::string> open(
      UsageStoreOptions options, std::shared_ptr<TaskQueue> queue, const Clock& clock);
  /// As `stop`.
  ~UsageStore();
  UsageStore(const UsageStore&) = delete;
  UsageStore& operator=(const UsageStore&) = delete;

  /// Accepts one event: true when it was new, or when it is a later reading of a known one that counted more
  /// (it then takes the place of the earlier one). False for what is known already.
  bool record(const UsageEvent& event) { return recordAll({&event, 1}) == 1; }
  /// Accepts a whole poll's events with one write; returns how many were new or replaced earlier ones.
  std::size_t recordAll(std::span<const UsageEvent> events);

  /// Records what can be read again from where it came, such as the agents' logs, without a write for each
  /// batch: the store is written when what was added outgrows what was there, and at the end.
  class Bulk {
   public:
    explicit Bulk(UsageStore& store) : store_(store) {}
    ~Bulk() { (void)finish(); }
    Bulk(const Bulk&) = delete;
    Bulk& operator=(const Bulk&) = delete;

    /// As the store's, but what it accepted is on disk only after `finish`, or after anything else that
    /// writes the store.
    std::size_t recordAll(std::span<const UsageEvent> events);
    /// Brings everything onto the platter. False when that failed: the store keeps trying.
    bool finish();

   private:
    UsageStore& store_;
    std::size_t unwritten_ = 0;
  };

  /// Gives the events of models that had no price the price that `card` knows now, and returns how many; an
  /// event that has a price keeps it. What an event no longer tells (one-hour cache writes) is priced as
  /// usual.
  std::size_t priceUnpriced(const ModelRateCard& card);

  /// Events from the start of the user's current day on.
  [[nodiscard]] UsageSummary todaySummary() const;
  /// Events with `from` ≤ timestamp ≤ `to`.
  [[nodiscard]] UsageSummary summary(Instant from, Instant to) const;
  /// Latest activity first.
  [[nodiscard]] std::vector<SessionUsageRecord> recentSessions(
      std::size_t limit = std::numeric_limits<std::size_t>::max()) const;
  /// In order of acceptance.
  [[nodiscard]] std::vector<UsageEvent> allEvents() const;
  [[nodiscard]] std::size_t eventCount() const;
  /// Calls `visit` for the events with `from` ≤ timestamp ≤ `to`, in order of acceptance, without copying
  /// them: a view ends with the call. The store is locked meanwhile; `visit` must not use it.
  void forEachEvent(Instant from, Instant to, const std::function<void(const UsageEventView&)>& visit) const;

  /// Totals and sessions, without events, turns, sources or single times: what may leave the machine. Pretty
  /// printed, keys sorted, times in ISO 8601.
  [[nodiscard]] std::string exportPrivacySafeJSON();
  /// Forgets everything, in memory and on disk. Events from before this moment are not accepted any more, so
  /// that no log brings back what was forgotten.
  void resetStore();
  /// When the store was reset last, if it ever was.
  [[nodiscard]] std::optional<Instant> forgottenBefore() const;
  /// Whether the store has anything of this session.
  [[nodiscard]] bool knowsSession(std::string_view session) const;
  /// What was recorded earlier may be missing: when it was opened there was no store file, or not all of it
  /// could be read.
  [[nodiscard]] bool mayLackHistory() const;
  /// Brings everything into the store file and onto the platter. The store stays usable.
  void stop();

 private:
  UsageStore(UsageStoreOptions options, std::shared_ptr<TaskQueue> queue, const Clock& clock, Fd lock);

  std::size_t acceptLocked(std::span<const UsageEvent> events, bool usesJournal);
  void saveLocked();
  void finishRewrite();
  void finishRewriteHoldingFinishLock();
  void bringIntoStoreFile();
  void scheduleLocked(std::chrono::milliseconds delay);
  void onTimer();

  const UsageStoreOptions options_;
  const std::shared_ptr<TaskQueue> queue_;
  const Clock& clock_;
  const Fd processLock_;

  std::mutex finishLock_;  ///< taken before `lock_`: one rewrite is put in place at a time
  mutable std::mutex lock_;
  UsageLedger ledger_;
  UsageStoreFiles files_;
  std::optional<std::chrono::nanoseconds> timerDue_;
  Token timer_;

  /// What tasks on the queue hold instead of the store: they keep its lock while they run, and the destructor
  /// takes the store out.
  struct Link {
    std::mutex lock;
    UsageStore* store = nullptr;
  };
  std::shared_ptr<Link> link_;
};

}  // namespace vimbrel
