// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/ExitWatch.h"
#include "Platform/Linux/ProcReader.h"
#include "Support/Clock.h"

namespace vimbrel {

/// Hears what the table finds out. Called during `ProcessTable::refresh`, with the table locked.
class ProcessTableObserver {
 public:
  virtual ~ProcessTableObserver() = default;
  /// A process was seen for the first time, or its command is another than before.
  virtual void processChanged(std::int32_t pid, std::string_view command, ProcReader::Kind kind) = 0;
  /// A process is gone, or hidden by its owner now: at the next refresh for a watched one, in time for
  /// others.
  virtual void processGone(std::int32_t pid) = 0;
};

/// What is known of every process, kept up to date with as little reading as it takes:
///
/// - New processes are those whose pid lies between the last task created at the previous refresh and the
/// last
///   one now. When that pid stands still, nothing is listed.
/// - A command can change only while its process runs, so it is read again only when the process's time on
/// the
///   processor has moved. Young processes are asked for it at every refresh, old ones in turn, so that each
///   is asked at least every 14 seconds when refreshes come every second.
/// - Watched processes are watched by pidfd; one poll covers all.
///
/// Queue: any; the caller of every member but `lock` holds `lock()`.
class ProcessTable {
 public:
  /// A process is young for so long after it was first seen: what is going to exec mostly does so at once.
  static constexpr std::chrono::seconds youth{3};
  /// Old processes are asked no earlier than this, and at the next refresh once they are due.
  static constexpr std::chrono::seconds earliestRecheck{6};
  static constexpr std::chrono::seconds latestRecheck{13};
  /// Everything is listed this often regardless, for processes created with a pid of their creator's choice
  /// (restored from a checkpoint), which move no counter.
  static constexpr std::chrono::seconds listingPeriod{60};

  explicit ProcessTable(const Clock& clock) : clock_(clock) {}
  ProcessTable(const ProcessTable&) = delete;
  ProcessTable& operator=(const ProcessTable&) = delete;

  [[nodiscard]] std::mutex& lock() { return lock_; }
  [[nodiscard]] ProcReader& reader() { return reader_; }

  /// The observer hears of every process at the next refresh, and must detach before it ends.
  void attach(ProcessTableObserver& observer);
  void detach(ProcessTableObserver& observer);

  void refresh();
  /// For those that come second in the same round: nothing is done when the last refresh is younger.
  void refreshIfOlderThan(std::chrono::nanoseconds age);

  /// Watches the end of a process that an observer was told of. Calls are counted.
  void watch(std::int32_t pid);
  void unwatch(std::int32_t pid);

 private:
  using Time = std::chrono::nanoseconds;
  struct Process {
    Time processorTime{};
    Time seenAt{};
    Time checkedAt{};
    std::size_t commandHash = 0;
    std::uint32_t generation = 0;  ///< tells a process from an earlier one with the same pid
    ProcReader::Kind kind = ProcReader::Kind::program;
    bool isAnnounced = false;
  };
  struct Ticket {
    std::int32_t pid = 0;
    std::uint32_t generation = 0;
  };

  void announceAll();
  void findNew(std::optional<std::int32_t> last);
  void list(std::optional<std::int32_t> last);
  void add(std::int32_t pid, bool isYoung);
  void check(std::int32_t pid, Process& process);
  void read(std::int32_t pid, Process& process);
  void forget(std::int32_t pid);
  void checkYoung();
  void checkOld(bool somethingWasCreated);
  void checkEnded();
  Process* find(Ticket ticket);
  [[nodiscard]] std::int64_t distance(std::int32_t from, std::int32_t to) const;
  [[nodiscard]] bool isCreatedBetween(std::int32_t pid, std::int32_t from, std::int32_t to) const;

  const Clock& clock_;
  std::mutex lock_;
  ProcReader reader_;
  std::vector<ProcessTableObserver*> observers_;
  std::unordered_map<std::int32_t, Process> processes_;
  std::vector<Ticket> young_;
  std::deque<Ticket> old_;  ///< the one checked longest ago comes first
  ExitWatch exits_;
  std::uint32_t nextGeneration_ = 0;
  bool hasUnannounced_ = false;  ///< an observer came that has not heard of everybody
  Time now_{};
  std::optional<Time> refreshedAt_;
  std::optional<Time> listedAt_;
  std::int32_t lastTask_ = 0;        ///< at the previous refresh
  std::int32_t beforeLastTask_ = 0;  ///< at the one before
  std::string command_;
  std::vector<std::int32_t> pids_;
};

}  // namespace vimbrel
