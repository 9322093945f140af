// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "AgentMonitoring/TurnInterruption.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageEvent.h"
#include "Support/Instant.h"

namespace vimbrel {

/// Which times of a log are believed. What is appended while the live reading watches is dated by its own
/// time only when that is written in whole seconds, and by the time of reading otherwise; whoever reads a
/// file from its start, which may be history, believes every record.
enum class LogTimes : std::uint8_t { wholeSecondsOnly, all };

/// One line of a Claude Code log that carries usage. Its texts live until the parser's next line. Most lines
/// are readings of a message that is known already, so the event's id, price and context window are only made
/// for the one that is kept (`ClaudeLogParser::eventOf`).
struct ClaudeLogRecord {
  UsageEventView event;
  BilledTokens billed;
  std::optional<std::string_view> directory;  ///< where the agent worked
};

/// Reads lines of Claude Code's conversation logs. Not for several threads at once.
class ClaudeLogParser {
 public:
  /// `card` must outlive the parser.
  explicit ClaudeLogParser(const ModelRateCard& card);
  ~ClaudeLogParser();

  enum class Outcome : std::uint8_t { noJson, noUsage, usage };

  /// `line` needs 64 readable bytes behind it. `fileName` without its extension is the session of a line that
  /// names none, and must live as long as the record; `number` is the line's number from the start of its
  /// file.
  Outcome parse(std::string_view line, std::uint64_t number, std::string_view fileName, Instant now,
                LogTimes times, ClaudeLogRecord& record);

  /// The event of a record, with an id of its own, its price and its model's context window.
  [[nodiscard]] UsageEvent eventOf(const ClaudeLogRecord& record);

  /// What the line says of an interrupted turn: Claude Code writes one in the user's name. Absent for every
  /// other line, most of which are not parsed. `line` as for `parse`.
  [[nodiscard]] std::optional<TurnInterruption> interruption(std::string_view line);

  /// False for lines that cannot carry usage, without parsing them: most of a log.
  [[nodiscard]] static bool mayCarryUsage(std::string_view line);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vimbrel
