// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Domain/UsageEvent.h"

namespace vimbrel {

/// Texts that repeat (session ids, models, sources), kept once and known by number.
class TextPool {
 public:
  /// The text's number. `latest`, the caller's number for the text before in the same column, saves the
  /// search while the text stays the same, and becomes the new number.
  std::uint32_t intern(std::string_view text, std::uint32_t& latest);
  [[nodiscard]] std::optional<std::uint32_t> find(std::string_view text) const;
  [[nodiscard]] const std::string& text(std::uint32_t number) const { return texts_[number]; }
  /// The text as a JSON string, quotes included.
  [[nodiscard]] const std::string& quoted(std::uint32_t number) const { return quoted_[number]; }
  [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(texts_.size()); }

 private:
  std::deque<std::string> texts_;
  std::deque<std::string> quoted_;
  std::unordered_map<std::string_view, std::uint32_t> numbers_;
};

/// Texts that do not repeat, packed one behind the other. Addresses stay valid.
class TextArena {
 public:
  std::string_view keep(std::string_view text);

 private:
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* cursor_ = nullptr;
  std::size_t left_ = 0;
};

/// Usage events in the order in which they were accepted, in about a third of the memory that the records
/// themselves would take, with an index of their deduplication keys. Years of history stay in memory this
/// way. Not synchronised.
class UsageEventTable {
 public:
  using Row = std::uint32_t;
  /// What the index knows of a key: a stored event's row, or a key alone that was seen.
  struct Known {
    std::optional<Row> row;
  };
  /// The texts that a view of a row points to, beside those of the table.
  struct Scratch {
    std::array<char, 36> id;
  };
  static constexpr std::size_t maximumEvents = 0x7FFFFFFE;

  /// Makes room in the index for this many keys in all.
  void reserve(std::size_t keys);
  [[nodiscard]] Row size() const { return size_; }
  [[nodiscard]] std::optional<Known> find(std::string_view key) const;

  /// Adds an event and its key. A key that is known keeps pointing to its first event.
  Row append(const UsageEventView& event);
  void replace(Row row, const UsageEventView& event);
  /// Adds a key without an event, if it is not known.
  void addKey(std::string_view key);

  /// Valid while the scratch and the table's contents are.
  [[nodiscard]] UsageEventView view(Row row, Scratch& scratch) const;
  [[nodiscard]] const std::vector<std::string_view>& keysWithoutEvent() const { return extraKeys_; }

  [[nodiscard]] const TextPool& texts() const { return texts_; }
  /// Numbers in `texts()`, for writing without looking texts up again.
  [[nodiscard]] std::uint32_t sessionNumber(Row row) const { return packed(row).session; }
  [[nodiscard]] std::optional<std::uint32_t> modelNumber(Row row) const;
  [[nodiscard]] std::uint32_t sourceNumber(Row row) const { return packed(row).source; }
  [[nodiscard]] AgentType agent(Row row) const { return packed(row).agent; }
  /// Empty without a turn.
  [[nodiscard]] std::string_view turn(Row row) const { return {packed(row).turn, packed(row).turnLength}; }
  /// True when the event has a turn and this is its key.
  [[nodiscard]] bool hasTurnKey(Row row, std::string_view key) const;

  /// Calls `visit(view)` for the events with `from` ≤ timestamp ≤ `to`, in order of acceptance. Blocks of
  /// rows that lie outside the range are passed over whole.
  template <typename Visit>
  void visit(Instant from, Instant to, Visit&& visitor) const {
    Scratch scratch;
    for (Row first = 0; first < size_; first += rowsPerBlock) {
      const auto& block = *blocks_[first / rowsPerBlock];
      if (block.latest < unixSeconds(from) || block.earliest > unixSeconds(to)) continue;
      const Row end = std::min<Row>(size_ - first, rowsPerBlock);
      for (Row i = 0; i < end; ++i) {
        const double time = block.rows[i].timestamp;
        if (time >= unixSeconds(from) && time <= unixSeconds(to)) visitor(view(first + i, scratch));
      }
    }
  }

 private:
  enum class IdForm : std::uint8_t { lowerUuid, upperUuid, text };
  struct PackedText {
    const char* start;
    std::uint32_t length;
  };
  using Counts = std::array<std::int64_t, 7>;
  struct PackedRow {
    std::array<std::int32_t, 7> counts;  ///< or, with the bit for it, in `wideCounts_`
    double cost;
    double quota;
    double timestamp;
    union {
      std::array<unsigned char, 16> uuid;
      PackedText text;
    } id;
    const char* turn;
    std::uint32_t turnLength;
    std::uint32_t session;
    std::uint32_t model;
    std::uint32_t source;
    std::uint16_t present;
    AgentType agent;
    IdForm idForm;
  };
  static constexpr Row rowsPerBlock = 4096;
  struct Block {
    double earliest = std::numeric_limits<double>::infinity();
    double latest = -std::numeric_limits<double>::infinity();
    std::array<PackedRow, rowsPerBlock> rows;
  };
  struct Slot {
    std::uint32_t fingerprint;
    std::uint32_t reference;  ///< 0: empty; else 1 + a row, or the top bit and an index of `extraKeys_`
  };

  [[nodiscard]] const PackedRow& packed(Row row) const {
    return blocks_[row / rowsPerBlock]->rows[row % rowsPerBlock];
  }
  /// `turn` is the event's turn id, kept in the arena.
  void pack(Row row, const UsageEventView& event, std::string_view turn);
  [[nodiscard]] bool hasKey(std::uint32_t reference, std::string_view key) const;
  /// The slot that holds the key, or the empty one where it belongs.
  [[nodiscard]] std::size_t slotOf(std::string_view key, std::uint32_t fingerprint) const;
  void growIndex();
  void resizeIndex(std::size_t slots);

  std::vector<std::unique_ptr<Block>> blocks_;
  Row size_ = 0;
  std::unordered_map<Row, Counts> wideCounts_;  ///< of the few rows with a count beyond 32 bits
  TextPool texts_;
  std::uint32_t latestSession_ = 0;
  std::uint32_t latestModel_ = 0;
  std::uint32_t latestSource_ = 0;
  TextArena arena_;
  std::vector<std::string_view> extraKeys_;
  std::vector<Slot> slots_;
  std::size_t usedSlots_ = 0;
  mutable std::string key_;  ///< of a row that is compared
  std::string newKey_;
};

}  // namespace vimbrel
