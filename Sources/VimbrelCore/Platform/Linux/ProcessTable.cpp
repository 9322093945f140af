// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ProcessTable.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace vimbrel {
namespace {

/// How many old processes are asked in a refresh that found nothing new: what fits into a few microseconds.
constexpr std::size_t quietShare = 8;
/// In the others a share that brings everybody's turn before `latestRecheck`.
constexpr std::size_t busyDivisor = 11;
/// Asking for a pid costs about as much as listing six processes.
constexpr std::int64_t listedPerProbe = 6;
/// On the first look the age of a process is unknown; those created just now are taken for young.
constexpr std::int64_t initialYouth = 64;

}  // namespace

void ProcessTable::attach(ProcessTableObserver& observer) {
  observers_.push_back(&observer);
  for (auto& [pid, process] : processes_) process.isAnnounced = false;
  hasUnannounced_ = true;
}

void ProcessTable::detach(ProcessTableObserver& observer) { std::erase(observers_, &observer); }

void ProcessTable::refreshIfOlderThan(std::chrono::nanoseconds age) {
  if (!refreshedAt_ || clock_.monotonic() - *refreshedAt_ >= age) refresh();
}

void ProcessTable::refresh() {
  now_ = clock_.monotonic();
  refreshedAt_ = now_;
  announceAll();
  checkEnded();
  const auto last = reader_.lastCreatedTask();
  const bool somethingWasCreated = !last || *last != lastTask_;
  checkYoung();
  findNew(last);
  checkOld(somethingWasCreated);
  // A pid is given before its task can be seen, so each range is looked at once more at the next refresh.
  beforeLastTask_ = lastTask_;
  if (last) lastTask_ = *last;
}

void ProcessTable::announceAll() {
  if (!std::exchange(hasUnannounced_, false)) return;
  pids_.clear();
  for (const auto& [pid, process] : processes_) pids_.push_back(pid);
  for (const auto pid : pids_) read(pid, processes_.at(pid));
}

void ProcessTable::watch(std::int32_t pid) { exits_.add(pid); }
void ProcessTable::unwatch(std::int32_t pid) { exits_.remove(pid); }

std::int64_t ProcessTable::distance(std::int32_t from, std::int32_t to) const {
  return to >= from ? to - from : std::int64_t{reader_.pidLimit()} - 1 - from + to;
}

bool ProcessTable::isCreatedBetween(std::int32_t pid, std::int32_t from, std::int32_t to) const {
  return to >= from ? pid > from && pid <= to : pid > from || pid <= to;
}

void ProcessTable::findNew(std::optional<std::int32_t> last) {
  const bool isListingDue = !last || !listedAt_ || now_ - *listedAt_ >= listingPeriod;
  if (isListingDue) return list(last);
  if (*last == beforeLastTask_ && *last == lastTask_) return;
  const auto fresh = distance(lastTask_, *last);
  const auto again = distance(beforeLastTask_, lastTask_);
  if ((fresh + again) * listedPerProbe > static_cast<std::int64_t>(processes_.size()) + 64) return list(last);

  auto pid = beforeLastTask_;
  for (std::int64_t i = 0; i < again + fresh; ++i) {
    if (++pid >= reader_.pidLimit()) pid = 1;
    const auto known = processes_.find(pid);
    // A known process with a pid that was given since must have ended: this is another one.
    if (known != processes_.end() && i >= again) forget(pid);
    if (i >= again || known == processes_.end()) add(pid, true);
  }
}

void ProcessTable::list(std::optional<std::int32_t> last) {
  const bool isFirst = !listedAt_;
  if (!reader_.listProcesses(pids_)) return;
  listedAt_ = now_;
  std::vector<std::int32_t> ended;
  for (const auto& [pid, process] : processes_) {
    const bool isReused = last && *last != lastTask_ && isCreatedBetween(pid, lastTask_, *last);
    if (isReused || !std::ranges::binary_search(pids_, pid)) ended.push_back(pid);
  }
  for (const auto pid : ended) forget(pid);
  for (const auto pid : pids_) {
    if (processes_.contains(pid)) continue;
    add(pid, !isFirst || (last && distance(pid, *last) < initialYouth));
  }
}

void ProcessTable::add(std::int32_t pid, bool isYoung) {
  // First the time, then the command: what is executed in between moves the time again.
  const auto time = ProcReader::processorTime(pid);
  if (!time) return;
  Process process;
  process.processorTime = *time;
  process.seenAt = process.checkedAt = now_;
  process.generation = ++nextGeneration_;
  auto& added = processes_[pid] = process;
  read(pid, added);
  const auto known = processes_.find(pid);
  if (known == processes_.end() || known->second.kind == ProcReader::Kind::kernelThread) return;
  const Ticket ticket{pid, process.generation};
  if (isYoung) {
    young_.push_back(ticket);
  } else {
    old_.push_back(ticket);
  }
}

void ProcessTable::read(std::int32_t pid, Process& process) {
  const auto kind = reader_.readCommand(pid, command_);
  if (kind == ProcReader::Kind::gone) return forget(pid);
  if (kind == ProcReader::Kind::unreadable) command_.clear();
  const auto hash = std::hash<std::string_view>{}(command_);
  if (process.isAnnounced && hash == process.commandHash && kind == process.kind) return;
  process.commandHash = hash;
  process.kind = kind;
  process.isAnnounced = true;
  for (auto* observer : observers_) {
    if (kind == ProcReader::Kind::unreadable) {
      observer->processGone(pid);
    } else {
      observer->processChanged(pid, command_, kind);
    }
  }
}

void ProcessTable::check(std::int32_t pid, Process& process) {
  process.checkedAt = now_;
  const auto time = ProcReader::processorTime(pid);
  if (!time) return forget(pid);
  if (*time == process.processorTime) return;
  process.processorTime = *time;
  read(pid, process);
}

void ProcessTable::forget(std::int32_t pid) {
  if (processes_.erase(pid) == 0) return;
  for (auto* observer : observers_) observer->processGone(pid);
}

ProcessTable::Process* ProcessTable::find(Ticket ticket) {
  const auto known = processes_.find(ticket.pid);
  if (known == processes_.end() || known->second.generation != ticket.generation) return nullptr;
  return &known->second;
}

void ProcessTable::checkYoung() {
  std::erase_if(young_, [this](Ticket ticket) {
    if (auto* process = find(ticket)) check(ticket.pid, *process);
    const auto* process = find(ticket);
    if (process == nullptr) return true;
    if (now_ - process->seenAt < youth) return false;
    old_.push_back(ticket);
    return true;
  });
}

void ProcessTable::checkOld(bool somethingWasCreated) {
  // While new processes keep coming, each scan takes its share. On a quiet machine scans do next to nothing,
  // until somebody's time is up: then all take their turn together, once in `latestRecheck`.
  const auto share = somethingWasCreated ? old_.size() / busyDivisor + quietShare : quietShare;
  auto earliest = earliestRecheck;
  for (auto left = old_.size(), checked = std::size_t{0}; left > 0; --left) {
    const auto ticket = old_.front();
    if (auto* process = find(ticket)) {
      const auto age = now_ - process->checkedAt;
      if (age >= latestRecheck && !somethingWasCreated) earliest = std::chrono::seconds{1};
      const bool isTurn =
          age >= latestRecheck || (age >= earliest && (checked < share || earliest < earliestRecheck));
      if (!isTurn) return;
      ++checked;
      check(ticket.pid, *process);
    }
    old_.pop_front();
    if (find(ticket) != nullptr) old_.push_back(ticket);
  }
}

void ProcessTable::checkEnded() {
  for (const auto pid : exits_.ended()) {
    // It may be left as a zombie, which has a line of its own, for as long as its parent likes.
    const auto known = processes_.find(pid);
    if (known != processes_.end()) read(pid, known->second);
  }
}

}  // namespace vimbrel
