// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "AgentMonitoring/UsageStore/UsageLedger.h"
#include "Support/JsonPullReader.h"
#include "Support/OutputBuffer.h"

namespace vimbrel {

/// The usage store's file (docs/file-formats.md), read and written without a document tree: with a hundred
/// thousand events a tree takes a second and hundreds of megabytes.
namespace usageStoreFormat {

inline constexpr std::int64_t schemaVersion = 1;
/// Texts of an event that are longer than this are none that an agent writes; such events are refused.
inline constexpr std::size_t maximumTextBytes = 1 << 16;
/// Events further from 1970 than this many seconds, or with more US dollars, are refused, too: their sums
/// would be no numbers any more.
inline constexpr double maximumUnixSeconds = 1e12;
inline constexpr double maximumCostUSD = 1e9;

void write(OutputBuffer& output, const UsageLedger& ledger);

struct Loaded {
  UsageLedger ledger;
  std::optional<std::int64_t> schemaVersion;  ///< absent for the legacy format
};
/// Reads a whole document, in any order of keys; unknown keys are passed over. The error is a sentence.
/// `documentBytes`, if known, saves growing.
[[nodiscard]] std::expected<Loaded, std::string> read(JsonPullReader& reader, std::size_t documentBytes = 0);

/// One event as a JSON object followed by a line break: a line of the journal.
void appendJournalLine(std::string& text, const UsageEventView& event);
/// Reads one line of the journal, without its line break.
[[nodiscard]] std::optional<UsageEvent> readJournalLine(std::string_view line);

}  // namespace usageStoreFormat
}  // namespace vimbrel
