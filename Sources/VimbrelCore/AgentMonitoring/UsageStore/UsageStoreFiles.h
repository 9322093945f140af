// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>

#include "AgentMonitoring/UsageStore/UsageJournal.h"
#include "AgentMonitoring/UsageStore/UsageLedger.h"
#include "Support/Clock.h"
#include "Support/Fd.h"
#include "Support/OwnFile.h"

namespace vimbrel {

/// The usage store on disk: the store file, the journal of what was accepted since that was written, and how
/// the one takes in the other. Knows what of the ledger is in neither. Failures are logged and remembered.
///
/// Not synchronised; only `putInPlace` and `flush` may run while another thread uses the rest: they take
/// long.
class UsageStoreFiles {
 public:
  struct Options {
    std::string path;                ///< the store file; the journal stands beside it
    std::size_t wholeFileBytes = 0;  ///< up to this size of the file every save rewrites it
    std::size_t journalShare = 1;    ///< the journal is taken in when it reaches this part of the file
    Durability durability = Durability::machine;
  };
  UsageStoreFiles(Options options, const Clock& clock);

  /// Keeps other processes out for as long as the descriptor is open; an empty one where no lock file can be
  /// made. The error is a sentence.
  [[nodiscard]] static std::expected<Fd, std::string> lock(const std::string& path);

  /// Reads everything there is. What cannot be read is kept aside before the first write.
  void load(UsageLedger& ledger);
  /// Whether there was no store file to load, or something that could not be read.
  [[nodiscard]] bool wasIncomplete() const { return wasIncomplete_; }

  /// True when what was accepted is to be saved as lines of the journal, handed over by `addLine`.
  [[nodiscard]] bool usesJournal() const;
  void addLine(const UsageEventView& event);
  /// The ledger has something that is neither in a file nor among the lines: the next save is a whole one.
  void markUnwritten() { isUnsaved_ = needsWholeWrite_ = true; }
  /// The latest save failed.
  [[nodiscard]] bool isUnsaved() const { return isUnsaved_; }
  /// Whether the store file lacks something that the ledger has.
  [[nodiscard]] bool needsRewrite() const { return journal_.bytes() != 0 || isUnsaved_ || needsWholeWrite_; }
  /// Whether something is in no file at all.
  [[nodiscard]] bool isIncomplete() const { return isUnsaved_ || needsWholeWrite_; }

  enum class Saved {
    failed,     ///< to be tried again
    whole,      ///< in the store file, on the platter
    appended,   ///< in the journal, to be flushed
    rewriting,  ///< as that, and a rewrite has begun, which is to be put in place
  };
  [[nodiscard]] Saved save(const UsageLedger& ledger);

  /// A new store file that has been written but is not yet in the old one's place.
  struct Rewrite {
    Fd file;
    std::size_t bytes = 0;
    std::uint64_t coveredSegment = 0;  ///< journal segments up to this one are contained in it
    std::shared_ptr<Fd> lastSegment;
    bool isOnlyCopy = false;  ///< it has events that neither the store file nor the journal has
  };
  /// Writes the whole ledger beside the old store file and turns to a new journal segment.
  [[nodiscard]] bool beginRewrite(const UsageLedger& ledger);
  /// Null when none is under way.
  [[nodiscard]] Rewrite* rewrite() const { return rewrite_.get(); }
  /// Flushes it and puts it in the old file's place. False when that failed.
  [[nodiscard]] bool putInPlace(Rewrite& rewrite) const;
  void endRewrite(bool isInPlace);

  /// Ends the journal: no line of it comes back, whatever happens after this.
  void forget();

  /// What the journal has that may not be on the platter yet; empty without a journal.
  struct Unflushed {
    std::shared_ptr<Fd> segment;
    bool isNew = false;  ///< its directory entry is not on the platter either
  };
  [[nodiscard]] Unflushed takeUnflushed();
  void flush(const Unflushed& unflushed) const;

 private:
  void loadStoreFile(UsageLedger& ledger);
  void replayJournal(UsageLedger& ledger);
  [[nodiscard]] std::expected<void, std::string> append();
  [[nodiscard]] std::expected<void, std::string> writeRewrite(const UsageLedger& ledger);
  [[nodiscard]] std::expected<void, std::string> replaceStoreFile(Rewrite& rewrite) const;
  [[nodiscard]] std::expected<void, std::string> keepUnreadableAside();
  void flushDirectory() const;
  /// When the journal has grown by another share of the store file.
  [[nodiscard]] std::size_t nextRewriteBytes(std::size_t journalBytes) const {
    return journalBytes + storeBytes_ / options_.journalShare;
  }

  const Options options_;
  const Clock& clock_;
  UsageJournal journal_;
  std::string unsavedLines_;      ///< journal lines that are not in a file yet
  bool isUnsaved_ = false;        ///< the latest write failed
  bool needsWholeWrite_ = false;  ///< what is on disk cannot be appended to
  bool isUnreadable_ = false;     ///< the store file could not be read and still stands in its place
  bool wasIncomplete_ = false;
  std::size_t storeBytes_ = 0;
  std::size_t rewriteAtJournalBytes_ = 0;
  std::unique_ptr<Rewrite> rewrite_;
  std::weak_ptr<Fd> flushedSegment_;  ///< its directory entry has been flushed
};

}  // namespace vimbrel
