// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageStore.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"
#include "Domain/UsageCodec.h"
#include "Support/CalendarDay.h"
#include "Support/Directories.h"
#include "Support/JsonWriter.h"
#include "Support/Log.h"

namespace vimbrel {
namespace {

const Logger& storeLog() {
  static const Logger logger("usage.store");
  return logger;
}

bool isWellFormed(std::string_view text) {
  if (text.size() > usageStoreFormat::maximumTextBytes) return false;
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

/// What the file format cannot carry is not accepted into memory either, so that both always agree.
bool isStorable(const UsageEvent& event) {
  // Comparisons are false for what is no number.
  const auto isWithin = [](std::optional<double> number, double limit) {
    return !number || std::fabs(*number) <= limit;
  };
  return isWellFormed(event.id) && isWellFormed(event.sessionId) && isWellFormed(event.source) &&
         isWellFormed(event.turnId.value_or("")) && isWellFormed(event.modelId.value_or("")) &&
         isWithin(unixSeconds(event.timestamp), usageStoreFormat::maximumUnixSeconds) &&
         isWithin(event.costEstimateUSD, usageStoreFormat::maximumCostUSD) &&
         isWithin(event.quotaRemainingPercent, std::numeric_limits<double>::max());
}

}  // namespace

std::string UsageStoreOptions::defaultPath() {
  return directories::applicationSupport() + "/Vimbrel/usage_store.json";
}

std::expected<std::unique_ptr<UsageStore>, std::string> UsageStore::open(UsageStoreOptions options,
                                                                         std::shared_ptr<TaskQueue> queue,
                                                                         const Clock& clock) {
  auto lock = UsageStoreFiles::lock(options.path);
  if (!lock) return std::unexpected(std::move(lock.error()));
  std::unique_ptr<UsageStore> store(
      new UsageStore(std::move(options), std::move(queue), clock, *std::move(lock)));
  store->files_.load(store->ledger_);
  if (store->files_.isIncomplete()) store->bringIntoStoreFile();
  return store;
}

UsageStore::UsageStore(UsageStoreOptions options, std::shared_ptr<TaskQueue> queue, const Clock& clock,
                       Fd lock)
    : options_(std::move(options)),
      queue_(std::move(queue)),
      clock_(clock),
      processLock_(std::move(lock)),
      files_({options_.path, options_.wholeFileBytes, options_.journalShare, options_.durability}, clock),
      link_(std::make_shared<Link>()) {
  link_->store = this;
}

UsageStore::~UsageStore() {
  {
    const std::lock_guard guard(link_->lock);
    link_->store = nullptr;
  }
  stop();
}

// ---- Recording

std::size_t UsageStore::acceptLocked(std::span<const UsageEvent> events, bool usesJournal) {
  std::size_t accepted = 0;
  auto& forgottenBefore = ledger_.forgottenBefore;
  if (const auto now = clock_.now(); forgottenBefore && *forgottenBefore > now) {
    // The clock was set back since. What comes now would be refused until it gets there again.
    forgottenBefore = now;
    files_.markUnwritten();
  }
  for (const auto& event : events) {
    if (forgottenBefore && event.timestamp < *forgottenBefore) continue;
    if (!isStorable(event) || ledger_.events.size() >= UsageEventTable::maximumEvents) {
      storeLog().error("Refused a usage event of %s that the store cannot hold",
                       std::string(rawValue(event.agentType)).c_str());
      continue;
    }
    const auto view = event.view();
    if (!ledger_.accept(view)) continue;
    ++accepted;
    if (usesJournal) files_.addLine(view);
  }
  return accepted;
}

std::size_t UsageStore::recordAll(std::span<const UsageEvent> events) {
  if (events.empty()) return 0;
  const std::lock_guard guard(lock_);
  const auto accepted = acceptLocked(events, files_.usesJournal());
  if (accepted != 0) saveLocked();
  return accepted;
}

std::size_t UsageStore::priceUnpriced(const ModelRateCard& card) {
  const std::lock_guard guard(lock_);
  const auto count = ledger_.priceUnpriced(card);
  if (count != 0) {
    files_.markUnwritten();
    saveLocked();
  }
  return count;
}

std::size_t UsageStore::Bulk::recordAll(std::span<const UsageEvent> events) {
  // So many events are written in a tenth of a second: until then there is no point in writing.
  constexpr std::size_t fewEvents = 131'072;
  std::size_t accepted = 0;
  bool isDue = false;
  {
    const std::lock_guard guard(store_.lock_);
    accepted = store_.acceptLocked(events, false);
    unwritten_ += accepted;
    if (accepted != 0) store_.files_.markUnwritten();
    isDue = unwritten_ > std::max<std::size_t>(fewEvents, store_.ledger_.events.size() / 2);
  }
  if (isDue) (void)finish();
  return accepted;
}

bool UsageStore::Bulk::finish() {
  if (unwritten_ == 0) return true;
  store_.bringIntoStoreFile();
  const std::lock_guard guard(store_.lock_);
  if (store_.files_.isIncomplete()) {
    store_.scheduleLocked(store_.options_.retryDelay);
    return false;
  }
  unwritten_ = 0;
  return true;
}

void UsageStore::resetStore() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
  const std::lock_guard guard(lock_);
  ledger_ = {};
  ledger_.forgottenBefore = clock_.now();
  // The journal goes first: after a crash in between, no line of it may bring back what was to be forgotten.
  files_.forget();
  saveLocked();
  storeLog().info("UsageStore reset completed.");
}

// ---- Saving

void UsageStore::saveLocked() {
  switch (files_.save(ledger_)) {
    case UsageStoreFiles::Saved::failed:
      return scheduleLocked(options_.retryDelay);
    case UsageStoreFiles::Saved::whole:
      return;
    case UsageStoreFiles::Saved::rewriting:
      queue_->post([link = link_] {
        const std::lock_guard running(link->lock);
        if (link->store != nullptr) link->store->finishRewrite();
      });
      [[fallthrough]];
    case UsageStoreFiles::Saved::appended:
      return scheduleLocked(options_.syncDelay);
  }
}

void UsageStore::finishRewrite() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
}

void UsageStore::finishRewriteHoldingFinishLock() {
  UsageStoreFiles::Rewrite* rewrite = nullptr;
  {
    const std::lock_guard guard(lock_);
    rewrite = files_.rewrite();
  }
  if (rewrite == nullptr) return;
  const bool isInPlace = files_.putInPlace(*rewrite);
  const std::lock_guard guard(lock_);
  files_.endRewrite(isInPlace);
}

void UsageStore::bringIntoStoreFile() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
  {
    const std::lock_guard guard(lock_);
    if (!files_.needsRewrite() || !files_.beginRewrite(ledger_)) return;
  }
  finishRewriteHoldingFinishLock();
}

void UsageStore::stop() { bringIntoStoreFile(); }

void UsageStore::scheduleLocked(std::chrono::milliseconds delay) {
  const auto due = clock_.monotonic() + delay;
  if (timerDue_ && *timerDue_ <= due) return;
  timerDue_ = due;
  timer_ = queue_->after(delay, [link = link_] {
    const std::lock_guard running(link->lock);
    if (link->store != nullptr) link->store->onTimer();
  });
}

/// Tries again what failed, and flushes what was appended.
void UsageStore::onTimer() {
  UsageStoreFiles::Unflushed unflushed;
  {
    const std::lock_guard guard(lock_);
    timerDue_.reset();
    if (files_.isUnsaved()) saveLocked();
    unflushed = files_.takeUnflushed();
  }
  files_.flush(unflushed);
}

// ---- Reading

UsageSummary UsageStore::summary(Instant from, Instant to) const {
  const std::lock_guard guard(lock_);
  return ledger_.summary(from, to);
}

UsageSummary UsageStore::todaySummary() const {
  constexpr double endOfTime = std::numeric_limits<double>::infinity();
  return summary(startOfLocalDay(localDay(clock_.now())), instantFromUnixSeconds(endOfTime));
}

std::vector<SessionUsageRecord> UsageStore::recentSessions(std::size_t limit) const {
  const std::lock_guard guard(lock_);
  return ledger_.recentSessions(limit);
}

void UsageStore::forEachEvent(Instant from, Instant to,
                              const std::function<void(const UsageEventView&)>& visit) const {
  const std::lock_guard guard(lock_);
  ledger_.events.visit(from, to, visit);
}

std::vector<UsageEvent> UsageStore::allEvents() const {
  const std::lock_guard guard(lock_);
  std::vector<UsageEvent> events;
  events.reserve(ledger_.events.size());
  UsageEventTable::Scratch scratch;
  for (UsageEventTable::Row row = 0; row < ledger_.events.size(); ++row) {
    events.push_back(ledger_.events.view(row, scratch).toEvent());
  }
  return events;
}

std::size_t UsageStore::eventCount() const {
  const std::lock_guard guard(lock_);
  return ledger_.events.size();
}

std::optional<Instant> UsageStore::forgottenBefore() const {
  const std::lock_guard guard(lock_);
  return ledger_.forgottenBefore;
}

bool UsageStore::knowsSession(std::string_view session) const {
  const std::lock_guard guard(lock_);
  return ledger_.sessions.contains(std::string(session));
}

bool UsageStore::mayLackHistory() const {
  const std::lock_guard guard(lock_);
  return files_.wasIncomplete();
}

std::string UsageStore::exportPrivacySafeJSON() {
  bringIntoStoreFile();
  const auto now = clock_.now();
  const auto today = localDay(now);
  const auto start = startOfLocalDay(today);
  const auto end = startOfLocalDay(std::chrono::sys_days{today} + std::chrono::days{1});
  // A day ends before the next one starts; ranges include both ends.
  const auto last = instantFromUnixSeconds(std::nextafter(unixSeconds(end), unixSeconds(start)));
  UsageSummary summaryOfToday;
  std::vector<SessionUsageRecord> sessions;
  std::size_t count = 0;
  {
    const std::lock_guard guard(lock_);
    summaryOfToday = ledger_.summary(start, last);
    sessions = ledger_.recentSessions(ledger_.sessions.size());
    count = ledger_.events.size();
  }
  try {
    nlohmann::json document{{"exportedAt", encodeInstant(now, DateCoding::iso8601)},
                            {"schemaVersion", usageStoreFormat::schemaVersion},
                            {"todaySummary", toJson(summaryOfToday)},
                            {"sessions", nlohmann::json::array()},
                            {"eventCount", count}};
    for (const auto& session : sessions) document["sessions"].push_back(toJson(session, DateCoding::iso8601));
    return document.dump(2);
  } catch (const std::exception& failure) {
    storeLog().error("Failed to encode the usage export: %s", failure.what());
    return "{}";
  }
}

}  // namespace vimbrel
