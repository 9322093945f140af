// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageStoreFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"
#include "Support/Log.h"

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

/// False for a failure, which is logged.
bool succeeded(const std::expected<void, std::string>& result) {
  if (!result) storeLog().error("Failed to save usage store: %s", result.error().c_str());
  return result.has_value();
}

}  // namespace

UsageStoreFiles::UsageStoreFiles(Options options, const Clock& clock)
    : options_(std::move(options)), clock_(clock), journal_(stem(options_.path) + ".journal") {}

std::expected<Fd, std::string> UsageStoreFiles::lock(const std::string& path) {
  // Without a lock file (a read-only disk) the store still works in memory; nothing can be corrupted there.
  Fd lock;
  if (auto opened = openOwnFile(stem(path) + ".lock", O_RDWR | O_CREAT)) lock = *std::move(opened);
  if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return std::unexpected("the usage store " + path + " is in use by another process");
  }
  return lock;
}

// ---- Loading

void UsageStoreFiles::load(UsageLedger& ledger) {
  ::unlink((options_.path + ".new").c_str());  // of a rewrite that a crash cut short
  loadStoreFile(ledger);
  replayJournal(ledger);
  rewriteAtJournalBytes_ = nextRewriteBytes(0);
}

void UsageStoreFiles::loadStoreFile(UsageLedger& ledger) {
  const Fd file(::open(options_.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  wasIncomplete_ = true;
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
  wasIncomplete_ = false;
  ledger = std::move(loaded->ledger);
  storeBytes_ = static_cast<std::size_t>(status.st_size);
  const auto events = static_cast<long>(ledger.events.size());
  if (loaded->schemaVersion) {
    storeLog().info("Loaded %ld usage events across %ld sessions from disk (schema v%ld)", events,
                    static_cast<long>(ledger.sessions.size()), static_cast<long>(*loaded->schemaVersion));
  } else {
    storeLog().info("Migrated %ld usage events from legacy schema to schema v1", events);
    needsWholeWrite_ = true;
  }
}

void UsageStoreFiles::replayJournal(UsageLedger& ledger) {
  // A line can be in the store file already (a crash between putting that in place and removing the journal):
  // the rule for events that are known makes replaying it again harmless.
  const auto unreadable = journal_.replay([&](std::string_view line) {
    const auto event = usageStoreFormat::readJournalLine(line);
    if (!event) return false;
    (void)ledger.accept(event->view());
    return true;
  });
  if (unreadable != 0) {
    storeLog().error("Passed over %ld unreadable lines of the usage journal; they are kept aside",
                     static_cast<long>(unreadable));
    needsWholeWrite_ = !isUnreadable_;
    wasIncomplete_ = true;
  }
}

// ---- Saving

bool UsageStoreFiles::usesJournal() const {
  // A rewrite under way has everything up to now; what comes goes to the segment after it.
  if (rewrite_) return true;
  return !needsWholeWrite_ && !isUnreadable_ &&
         (storeBytes_ > options_.wholeFileBytes || journal_.bytes() != 0 || !unsavedLines_.empty());
}

void UsageStoreFiles::addLine(const UsageEventView& event) {
  usageStoreFormat::appendJournalLine(unsavedLines_, event);
}

UsageStoreFiles::Saved UsageStoreFiles::save(const UsageLedger& ledger) {
  if (!usesJournal()) {
    bool isInPlace = false;
    if (beginRewrite(ledger)) {
      isInPlace = putInPlace(*rewrite_);
      endRewrite(isInPlace);
    }
    isUnsaved_ = !isInPlace;
    return isInPlace ? Saved::whole : Saved::failed;
  }
  isUnsaved_ = !succeeded(append());
  if (isUnsaved_) return Saved::failed;
  if (rewrite_ || journal_.bytes() < rewriteAtJournalBytes_) return Saved::appended;
  if (beginRewrite(ledger)) return Saved::rewriting;
  // Every event is in the journal: there is no hurry to try again.
  rewriteAtJournalBytes_ = nextRewriteBytes(journal_.bytes());
  return Saved::appended;
}

std::expected<void, std::string> UsageStoreFiles::append() {
  if (auto appended = journal_.append(unsavedLines_); !appended)
    return std::unexpected(appended.error().text());
  unsavedLines_.clear();
  constexpr std::size_t keptCapacity = 1 << 16;
  if (unsavedLines_.capacity() > keptCapacity) unsavedLines_.shrink_to_fit();
  return {};
}

void UsageStoreFiles::forget() {
  unsavedLines_.clear();
  journal_.removeThrough(journal_.rotate(), {});
  needsWholeWrite_ = true;
}

// ---- Rewriting

bool UsageStoreFiles::beginRewrite(const UsageLedger& ledger) {
  if (!succeeded(writeRewrite(ledger))) return false;
  isUnsaved_ = false;
  return true;
}

std::expected<void, std::string> UsageStoreFiles::writeRewrite(const UsageLedger& ledger) {
  // The policy speaks about the place that a link would lead to; the store file itself is asked about, and
  // the new file beside it is created without following links.
  if (auto allowed = VimbrelWritePolicy::assertCanWrite(options_.path); !allowed) {
    return std::unexpected(allowed.error().text());
  }
  if (auto aside = keepUnreadableAside(); !aside) return aside;
  const auto path = options_.path + ".new";
  auto file = openOwnFile(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (!file) return std::unexpected(file.error().text());
  OutputBuffer output(file->get());
  usageStoreFormat::write(output, ledger);
  if (!output.flush()) {
    ::unlink(path.c_str());
    return std::unexpected(systemText(("cannot write " + path).c_str(), output.error()));
  }
  auto lastSegment = journal_.current();
  const auto covered = journal_.rotate();
  const bool isOnlyCopy = needsWholeWrite_ || !unsavedLines_.empty() || !usesJournal();
  unsavedLines_.clear();
  needsWholeWrite_ = false;
  rewrite_ = std::make_unique<Rewrite>(
      Rewrite{*std::move(file), output.bytes(), covered, std::move(lastSegment), isOnlyCopy});
  return {};
}

std::expected<void, std::string> UsageStoreFiles::keepUnreadableAside() {
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

bool UsageStoreFiles::putInPlace(Rewrite& rewrite) const { return succeeded(replaceStoreFile(rewrite)); }

std::expected<void, std::string> UsageStoreFiles::replaceStoreFile(Rewrite& rewrite) const {
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
  flushDirectory();
  return {};
}

void UsageStoreFiles::endRewrite(bool isInPlace) {
  if (isInPlace) {
    storeBytes_ = rewrite_->bytes;
    rewriteAtJournalBytes_ = nextRewriteBytes(0);
    journal_.removeThrough(rewrite_->coveredSegment, ".unreadable");
  } else {
    rewriteAtJournalBytes_ = nextRewriteBytes(journal_.bytes());
    if (rewrite_->isOnlyCopy) markUnwritten();
  }
  rewrite_.reset();
}

// ---- Flushing

UsageStoreFiles::Unflushed UsageStoreFiles::takeUnflushed() {
  auto segment = journal_.current();
  const bool isNew = segment != flushedSegment_.lock();
  flushedSegment_ = segment;
  return {std::move(segment), isNew};
}

void UsageStoreFiles::flush(const Unflushed& unflushed) const {
  if (!unflushed.segment || options_.durability != Durability::machine) return;
  ::fdatasync(unflushed.segment->get());
  if (unflushed.isNew) flushDirectory();
}

void UsageStoreFiles::flushDirectory() const {
  if (options_.durability != Durability::machine) return;
  const auto slash = options_.path.rfind('/');
  const Fd directory(::open(options_.path.substr(0, slash).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
}

}  // namespace vimbrel
