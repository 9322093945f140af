// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "Domain/UsageCodec.h"
#include "Support/CalendarDay.h"
#include "Support/Directories.h"
#include "Support/JsonWriter.h"
#include "Support/Log.h"
#include "Support/OwnFile.h"

namespace vimbrel {
namespace {

const Logger& storeLog() {
  static const Logger logger("usage.store");
  return logger;
}

/// "…/usage_store.json" → "…/usage_store"
std::string stem(const std::string& path) {
  constexpr std::string_view extension = ".json";
  return path.ends_with(extension) ? path.substr(0, path.size() - extension.size()) : path;
}

std::string systemText(const char* what, int code) { return std::string(what) + ": " + std::strerror(code); }

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
  const auto isFinite = [](const std::optional<double>& number) { return !number || std::isfinite(*number); };
  return isWellFormed(event.id) && isWellFormed(event.sessionId) && isWellFormed(event.source) &&
         isWellFormed(event.turnId.value_or("")) && isWellFormed(event.modelId.value_or("")) &&
         std::isfinite(unixSeconds(event.timestamp)) && isFinite(event.costEstimateUSD) &&
         isFinite(event.quotaRemainingPercent);
}

}  // namespace

std::string UsageStoreOptions::defaultPath() {
  return directories::applicationSupport() + "/Vimbrel/usage_store.json";
}

std::expected<std::unique_ptr<UsageStore>, std::string> UsageStore::open(UsageStoreOptions options,
                                                                         std::shared_ptr<TaskQueue> queue,
                                                                         const Clock& clock) {
  // Without a lock file (a read-only disk) the store still works in memory; nothing can be corrupted there.
  Fd lock;
  if (auto opened = openOwnFile(stem(options.path) + ".lock", O_RDWR | O_CREAT)) lock = *std::move(opened);
  if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return std::unexpected("the usage store " + options.path + " is in use by another process");
  }
  std::unique_ptr<UsageStore> store(
      new UsageStore(std::move(options), std::move(queue), clock, std::move(lock)));
  store->load();
  return store;
}

UsageStore::UsageStore(UsageStoreOptions options, std::shared_ptr<TaskQueue> queue, const Clock& clock,
                       Fd lock)
    : options_(std::move(options)),
      queue_(std::move(queue)),
      clock_(clock),
      processLock_(std::move(lock)),
      journal_(stem(options_.path) + ".journal"),
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

// ---- Loading

void UsageStore::load() {
  ::unlink((options_.path + ".new").c_str());  // of a rewrite that a crash cut short
  loadStoreFile();
  replayJournal();
  rewriteAtJournalBytes_ = storeBytes_ / options_.journalShare;
  if (needsWholeWrite_) bringIntoStoreFile();
}

void UsageStore::loadStoreFile() {
  const Fd file(::open(options_.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file && errno == ENOENT) return;
  struct stat status{};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    isUnreadable_ = true;
    return;
  }
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  JsonPullReader reader([&](char* buffer, std::size_t size) {
    ssize_t count = 0;
    do {
      count = ::read(file.get(), buffer, size);
    } while (count < 0 && errno == EINTR);
    return count;
  });
  auto loaded = usageStoreFormat::read(reader, static_cast<std::size_t>(status.st_size));
  if (!loaded) {
    isUnreadable_ = true;
    return;
  }
  contents_ = std::move(loaded->contents);
  storeBytes_ = static_cast<std::size_t>(status.st_size);
  const auto events = static_cast<long>(contents_.events.size());
  if (loaded->schemaVersion) {
    storeLog().info("Loaded %ld usage events across %ld sessions from disk (schema v%ld)", events,
                    static_cast<long>(contents_.sessions.size()), static_cast<long>(*loaded->schemaVersion));
  } else {
    storeLog().info("Migrated %ld usage events from legacy schema to schema v1", events);
    needsWholeWrite_ = true;
  }
}

void UsageStore::replayJournal() {
  // A line can be in the store file already (a crash between putting that in place and removing the journal):
  // the rule for events that are known makes replaying it again harmless.
  const auto unreadable = journal_.replay([this](std::string_view line) {
    const auto event = usageStoreFormat::readJournalLine(line);
    if (!event) return false;
    (void)applyLocked(event->view());
    return true;
  });
  if (unreadable != 0) {
    storeLog().error("Passed over %ld unreadable lines of the usage journal; they are kept aside",
                     static_cast<long>(unreadable));
    needsWholeWrite_ = !isUnreadable_;
  }
}

// ---- Recording

bool UsageStore::applyLocked(const UsageEventView& event) {
  std::string key;
  event.appendDeduplicationKey(key);
  const auto known = contents_.events.find(key);
  if (known && !known->row) return false;
  if (known) {
    UsageEventTable::Scratch scratch;
    const auto earlier = contents_.events.view(*known->row, scratch);
    if (!event.countsMoreThan(earlier)) return false;
    const auto session = contents_.sessions.find(std::string(event.sessionId));
    const bool isMoved = session != contents_.sessions.end() && session->second.exchange(earlier, event);
    contents_.events.replace(*known->row, event);
    if (!isMoved) rebuildSessionLocked(std::string(event.sessionId));
    return true;
  }
  contents_.events.append(event);
  auto session = contents_.sessions.find(std::string(event.sessionId));
  if (session == contents_.sessions.end()) {
    session = contents_.sessions.emplace(event.sessionId, SessionUsageRecord::openedBy(event)).first;
  }
  session->second.fold(event);
  return true;
}

std::size_t UsageStore::priceUnpriced(const ModelRateCard& card) {
  const std::lock_guard guard(lock_);
  std::size_t count = 0;
  std::string latestModel;
  const ModelRateCard::Row* rate = nullptr;
  UsageEventTable::Scratch scratch;
  for (UsageEventTable::Row row = 0; row < contents_.events.size(); ++row) {
    const auto earlier = contents_.events.view(row, scratch);
    if (earlier.costEstimateUSD || !earlier.modelId) continue;
    if (*earlier.modelId != latestModel) {
      latestModel = *earlier.modelId;
      rate = card.find(latestModel);
    }
    if (rate == nullptr) continue;
    auto billed = BilledTokens{.inputTokens = earlier.inputTokens,
                               .outputTokens = earlier.outputTokens,
                               .cachedTokens = earlier.cachedTokens,
                               .reasoningTokens = earlier.reasoningTokens,
                               .cacheWriteTokens = earlier.cacheWriteTokens};
    if (earlier.agentType == AgentType::codex && earlier.source != "relay-hook") {
      billed =
          BilledTokens::fromNestedCounts(earlier.inputTokens, earlier.outputTokens, earlier.cachedTokens);
    }
    const auto event = [&] {
      auto copy = earlier.toEvent();
      copy.costEstimateUSD = rate->price(billed);
      return copy;
    }();
    const auto session = contents_.sessions.find(event.sessionId);
    auto moved = event.view();  // What the session last said of its window and quota stays.
    moved.contextWindow.reset();
    moved.quotaRemainingPercent.reset();
    const bool isMoved = session != contents_.sessions.end() && session->second.exchange(earlier, moved);
    contents_.events.replace(row, event.view());
    if (!isMoved) rebuildSessionLocked(event.sessionId);
    ++count;
  }
  if (count != 0) {
    isUnsaved_ = needsWholeWrite_ = true;
    saveLocked();
  }
  return count;
}

void UsageStore::rebuildSessionLocked(const std::string& sessionId) {
  UsageEventTable::Scratch scratch;
  std::optional<SessionUsageRecord> record;
  for (UsageEventTable::Row row = 0; row < contents_.events.size(); ++row) {
    const auto event = contents_.events.view(row, scratch);
    if (event.sessionId != sessionId) continue;
    if (!record) record = SessionUsageRecord::openedBy(event);
    record->fold(event);
  }
  if (record) contents_.sessions.insert_or_assign(sessionId, *std::move(record));
}

bool UsageStore::usesJournalLocked() const {
  // A rewrite under way has everything up to now; what comes goes to the segment after it.
  if (rewrite_) return true;
  return !needsWholeWrite_ && !isUnreadable_ &&
         (storeBytes_ > options_.wholeFileBytes || journal_.bytes() != 0 || !unsavedLines_.empty());
}

std::size_t UsageStore::recordAll(std::span<const UsageEvent> events) {
  const std::lock_guard guard(lock_);
  const auto accepted = acceptLocked(events, usesJournalLocked());
  if (accepted != 0) {
    isUnsaved_ = true;
    saveLocked();
  }
  return accepted;
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
    // What is in memory only is not in any journal line: the next write is a whole one.
    if (accepted != 0) store_.isUnsaved_ = store_.needsWholeWrite_ = true;
    isDue = unwritten_ > std::max<std::size_t>(fewEvents, store_.contents_.events.size() / 2);
  }
  if (isDue) (void)finish();
  return accepted;
}

bool UsageStore::Bulk::finish() {
  if (unwritten_ == 0) return true;
  store_.bringIntoStoreFile();
  const std::lock_guard guard(store_.lock_);
  if (store_.isUnsaved_ || store_.needsWholeWrite_) {
    store_.scheduleLocked(store_.options_.retryDelay);
    return false;
  }
  unwritten_ = 0;
  return true;
}

std::size_t UsageStore::acceptLocked(std::span<const UsageEvent> events, bool usesJournal) {
  std::size_t accepted = 0;
  for (const auto& event : events) {
    if (!isStorable(event) || contents_.events.size() >= UsageEventTable::maximumEvents) {
      storeLog().error("Refused a usage event of %s that the store cannot hold",
                       std::string(rawValue(event.agentType)).c_str());
      continue;
    }
    const auto view = event.view();
    if (!applyLocked(view)) continue;
    ++accepted;
    if (usesJournal) usageStoreFormat::appendJournalLine(unsavedLines_, view);
  }
  return accepted;
}

// ---- Saving

void UsageStore::saveLocked() {
  std::expected<void, std::string> saved;
  if (usesJournalLocked()) {
    saved = appendLocked();
    if (saved) scheduleLocked(options_.syncDelay);
    if (saved && !rewrite_ && journal_.bytes() >= rewriteAtJournalBytes_) {
      saved = beginRewriteLocked();
      if (saved) {
        queue_->post([link = link_] {
          const std::lock_guard running(link->lock);
          if (link->store != nullptr) link->store->finishRewrite();
        });
      } else {
        // Every event is in the journal: there is no hurry to try again.
        rewriteAtJournalBytes_ = journal_.bytes() + storeBytes_ / options_.journalShare;
        storeLog().error("Failed to save usage store: %s", saved.error().c_str());
        saved = {};
      }
    }
  } else {
    saved = beginRewriteLocked();
    if (saved) {
      saved = putInPlace(*rewrite_);
      endRewriteLocked(saved.has_value());
    }
  }
  isUnsaved_ = !saved;
  if (!saved) {
    storeLog().error("Failed to save usage store: %s", saved.error().c_str());
    scheduleLocked(options_.retryDelay);
  }
}

std::expected<void, std::string> UsageStore::appendLocked() {
  if (auto appended = journal_.append(unsavedLines_); !appended)
    return std::unexpected(appended.error().text());
  unsavedLines_.clear();
  constexpr std::size_t keptCapacity = 1 << 16;
  if (unsavedLines_.capacity() > keptCapacity) unsavedLines_.shrink_to_fit();
  return {};
}

std::expected<void, std::string> UsageStore::keepUnreadableAsideLocked() {
  if (!isUnreadable_) return {};
  auto time = formatIso8601(clock_.now());
  std::erase_if(time, [](char c) { return c == ':' || c == '-'; });
  auto aside = stem(options_.path) + ".unreadable-" + time + ".json";
  for (int i = 2; ::access(aside.c_str(), F_OK) == 0; ++i) {
    aside = stem(options_.path) + ".unreadable-" + time + "-" + std::to_string(i) + ".json";
  }
  if (auto allowed = VimbrelWritePolicy::assertCanWrite(aside); !allowed)
    return std::unexpected(allowed.error().text());
  if (::rename(options_.path.c_str(), aside.c_str()) != 0 && errno != ENOENT) {
    return std::unexpected(systemText("cannot keep the unreadable store aside", errno));
  }
  isUnreadable_ = false;
  storeLog().error("The usage store could not be read and was kept as %s", aside.c_str());
  return {};
}

/// Writes the whole store beside the old one and turns to a new journal segment.
std::expected<void, std::string> UsageStore::beginRewriteLocked() {
  // The policy speaks about the place that a link would lead to; the store file itself is asked about, and
  // the new file beside it is created without following links.
  if (auto allowed = VimbrelWritePolicy::assertCanWrite(options_.path); !allowed) {
    return std::unexpected(allowed.error().text());
  }
  if (auto aside = keepUnreadableAsideLocked(); !aside) return aside;
  const auto path = options_.path + ".new";
  auto file = openOwnFile(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (!file) return std::unexpected(file.error().text());
  OutputBuffer output(file->get());
  usageStoreFormat::write(output, contents_);
  if (!output.flush()) {
    ::unlink(path.c_str());
    return std::unexpected(systemText(("cannot write " + path).c_str(), output.error()));
  }
  auto lastSegment = journal_.current();
  const auto covered = journal_.rotate();
  const bool isOnlyCopy = needsWholeWrite_ || !unsavedLines_.empty() || !usesJournalLocked();
  unsavedLines_.clear();
  needsWholeWrite_ = false;
  rewrite_ = std::make_unique<Rewrite>(
      Rewrite{*std::move(file), output.bytes(), covered, std::move(lastSegment), isOnlyCopy});
  return {};
}

void UsageStore::endRewriteLocked(bool isInPlace) {
  if (isInPlace) {
    storeBytes_ = rewrite_->bytes;
    rewriteAtJournalBytes_ = storeBytes_ / options_.journalShare;
    journal_.removeThrough(rewrite_->coveredSegment, ".unreadable");
  } else {
    rewriteAtJournalBytes_ = journal_.bytes() + storeBytes_ / options_.journalShare;
    if (rewrite_->isOnlyCopy) isUnsaved_ = needsWholeWrite_ = true;
  }
  rewrite_.reset();
}

std::expected<void, std::string> UsageStore::putInPlace(Rewrite& rewrite) {
  const auto path = options_.path + ".new";
  if (options_.durability == Durability::machine) {
    // The segment first: it is small, and holds what was promised to be safe within the delay.
    if (rewrite.lastSegment) ::fdatasync(rewrite.lastSegment->get());
    if (::fdatasync(rewrite.file.get()) != 0)
      return std::unexpected(systemText("cannot flush the store", errno));
  }
  if (::close(rewrite.file.release()) != 0)
    return std::unexpected(systemText("cannot write the store", errno));
  if (::rename(path.c_str(), options_.path.c_str()) != 0) {
    return std::unexpected(systemText("cannot replace the store", errno));
  }
  syncDirectory();
  return {};
}

void UsageStore::syncDirectory() const {
  if (options_.durability != Durability::machine) return;
  const auto slash = options_.path.rfind('/');
  const Fd directory(::open(options_.path.substr(0, slash).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
}

void UsageStore::finishRewrite() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
}

void UsageStore::finishRewriteHoldingFinishLock() {
  Rewrite* rewrite = nullptr;
  {
    const std::lock_guard guard(lock_);
    rewrite = rewrite_.get();
  }
  if (rewrite == nullptr) return;
  const auto placed = putInPlace(*rewrite);
  const std::lock_guard guard(lock_);
  if (!placed) storeLog().error("Failed to save usage store: %s", placed.error().c_str());
  endRewriteLocked(placed.has_value());
}

void UsageStore::bringIntoStoreFile() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
  {
    const std::lock_guard guard(lock_);
    if (journal_.bytes() == 0 && !isUnsaved_ && !needsWholeWrite_) return;
    if (const auto begun = beginRewriteLocked(); !begun) {
      storeLog().error("Failed to save usage store: %s", begun.error().c_str());
      return;
    }
    isUnsaved_ = false;
  }
  finishRewriteHoldingFinishLock();
}

void UsageStore::stop() { bringIntoStoreFile(); }

// ---- The timer: flushing, and trying again

void UsageStore::scheduleLocked(std::chrono::milliseconds delay) {
  const auto due = clock_.monotonic() + delay;
  if (timerDue_ && *timerDue_ <= due) return;
  timerDue_ = due;
  timer_ = queue_->after(delay, [link = link_] {
    const std::lock_guard running(link->lock);
    if (link->store != nullptr) link->store->onTimer();
  });
}

void UsageStore::onTimer() {
  std::shared_ptr<Fd> segment;
  bool isNew = false;
  {
    const std::lock_guard guard(lock_);
    timerDue_.reset();
    if (isUnsaved_) saveLocked();
    segment = journal_.current();
    isNew = segment != syncedSegment_.lock();
    syncedSegment_ = segment;
  }
  if (!segment || options_.durability != Durability::machine) return;
  ::fdatasync(segment->get());
  if (isNew) syncDirectory();
}

// ---- Reading

UsageSummary UsageStore::summaryLocked(Instant from, Instant to) const {
  UsageSummaryBuilder builder;
  contents_.events.visit(from, to, [&](const UsageEventView& event) { builder.add(event); });
  return builder.summary();
}

UsageSummary UsageStore::summary(Instant from, Instant to) const {
  const std::lock_guard guard(lock_);
  return summaryLocked(from, to);
}

UsageSummary UsageStore::todaySummary() const {
  constexpr double endOfTime = std::numeric_limits<double>::infinity();
  return summary(startOfLocalDay(localDay(clock_.now())), instantFromUnixSeconds(endOfTime));
}

std::vector<SessionUsageRecord> UsageStore::recentSessions(std::size_t limit) const {
  const std::lock_guard guard(lock_);
  return recentSessionsLocked(limit);
}

std::vector<SessionUsageRecord> UsageStore::recentSessionsLocked(std::size_t limit) const {
  std::vector<const SessionUsageRecord*> order;
  order.reserve(contents_.sessions.size());
  for (const auto& [id, session] : contents_.sessions) order.push_back(&session);
  const auto isLater = [](const SessionUsageRecord* left, const SessionUsageRecord* right) {
    if (left->lastActiveAt != right->lastActiveAt) return left->lastActiveAt > right->lastActiveAt;
    return left->id < right->id;
  };
  const auto count = std::min(limit, order.size());
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(), isLater);
  std::vector<SessionUsageRecord> result;
  result.reserve(count);
  for (std::size_t i = 0; i < count; ++i) result.push_back(*order[i]);
  return result;
}

void UsageStore::forEachEvent(Instant from, Instant to,
                              const std::function<void(const UsageEventView&)>& visit) const {
  const std::lock_guard guard(lock_);
  contents_.events.visit(from, to, visit);
}

std::vector<UsageEvent> UsageStore::allEvents() const {
  const std::lock_guard guard(lock_);
  std::vector<UsageEvent> events;
  events.reserve(contents_.events.size());
  UsageEventTable::Scratch scratch;
  for (UsageEventTable::Row row = 0; row < contents_.events.size(); ++row) {
    events.push_back(contents_.events.view(row, scratch).toEvent());
  }
  return events;
}

std::size_t UsageStore::eventCount() const {
  const std::lock_guard guard(lock_);
  return contents_.events.size();
}

// ---- Export and reset

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
    summaryOfToday = summaryLocked(start, last);
    sessions = recentSessionsLocked(contents_.sessions.size());
    count = contents_.events.size();
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

void UsageStore::resetStore() {
  const std::lock_guard finishing(finishLock_);
  finishRewriteHoldingFinishLock();
  const std::lock_guard guard(lock_);
  contents_ = {};
  unsavedLines_.clear();
  // The journal goes first: after a crash in between, no line of it may bring back what was to be forgotten.
  journal_.removeThrough(journal_.rotate(), {});
  needsWholeWrite_ = true;
  saveLocked();
  storeLog().info("UsageStore reset completed.");
}

}  // namespace vimbrel
