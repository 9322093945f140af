// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Support/Fd.h"
#include "Support/OwnFile.h"

namespace vimbrel {

/// The lines that were accepted since the store file was last rewritten, in numbered segments beside it
/// ("usage_store.journal.1", …): a rewrite covers the segments up to a number, and new lines go to the next
/// one while the new store file is being brought to disk. Segments are removed only when that is done. Not
/// synchronised.
class UsageJournal {
 public:
  /// `prefix` is the path without the segment's number and the dot before it.
  explicit UsageJournal(std::string prefix) : prefix_(std::move(prefix)) {}

  /// Reads all segments in order and hands out their complete lines. `accept` returns false for a line that
  /// it cannot read. A torn last line, the trace of a crash, is cut off; a segment with other unreadable
  /// lines is kept aside when its time comes to be removed. Returns the number of such lines.
  std::size_t replay(const std::function<bool(std::string_view line)>& accept);

  /// Appends lines, each with its line break, in one write. On failure nothing of them stays.
  [[nodiscard]] std::expected<void, OwnFileError> append(std::string_view lines);
  /// Ends the current segment; returns its number.
  std::uint64_t rotate();
  /// Removes the segments up to `number`. One with unreadable lines is renamed instead, with `asideSuffix`
  /// unless that is empty.
  void removeThrough(std::uint64_t number, const std::string& asideSuffix);

  [[nodiscard]] std::size_t bytes() const;
  /// The segment that is being appended to, to be flushed outside of the owner's lock; null before the first
  /// line.
  [[nodiscard]] std::shared_ptr<Fd> current() const { return file_; }

 private:
  struct Segment {
    std::size_t bytes = 0;
    bool isDamaged = false;
  };
  [[nodiscard]] std::string path(std::uint64_t number) const {
    return prefix_ + "." + std::to_string(number);
  }
  bool replaySegment(std::uint64_t number, Segment& segment, std::size_t& unreadable,
                     const std::function<bool(std::string_view)>& accept);

  std::string prefix_;
  std::map<std::uint64_t, Segment> segments_;
  std::uint64_t next_ = 1;  ///< number of the segment that `file_` is, or will be
  std::shared_ptr<Fd> file_;
  bool endsInTornLine_ = false;
};

}  // namespace vimbrel
