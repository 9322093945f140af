// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"
#include "AgentMonitoring/UsageProviders/JsonLines.h"
#include "Domain/BudgetIntelligence.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageEvent.h"

namespace vimbrel {

/// Token counts as Codex writes them: cached tokens are part of the input, reasoning tokens part of the
/// output.
struct CodexCounts {
  std::optional<std::int64_t> input;
  std::optional<std::int64_t> cached;
  std::optional<std::int64_t> output;
  std::optional<std::int64_t> reasoning;
  std::optional<std::int64_t> total;
  /// `total`, else input + output.
  [[nodiscard]] std::int64_t figure() const;
  bool operator==(const CodexCounts&) const = default;
};

/// One token-count record, reduced to what tells whether two of them are the same.
struct CodexFingerprint {
  CodexCounts cumulative;
  CodexCounts latest;
  bool operator==(const CodexFingerprint&) const = default;
};

/// What a rollout's reading remembers from one read to the next.
struct CodexRolloutState {
  JsonLinesPosition position;
  std::optional<CodexCounts> lastCumulative;  ///< of the last token-count record
  std::optional<std::string> ownId;           ///< of the first session record: this rollout's own
  std::optional<Instant> createdAt;           ///< its time
  std::optional<std::string> directory;
  bool metaSeen = false;
  /// The parent's records, while the beginning of this rollout repeats them; `replayIndex` is the next to
  /// come.
  std::shared_ptr<const std::vector<CodexFingerprint>> parentRecords;
  std::size_t replayIndex = 0;
  bool inReplay = false;
};

/// The budget side of what one read found.
struct CodexReading {
  std::string model;
  std::optional<ContextBudget> context;
  std::optional<AccountQuotaBudget> quota;
  std::optional<CodexCounts> cumulative;
  std::optional<std::int64_t> contextWindow;
  std::optional<Instant> abortedAt;  ///< the user interrupted the turn then, and none has begun since
};

/// Reads Codex session rollouts. Not for several threads at once.
class CodexRolloutParser {
 public:
  /// Gives the token-count records of the rollout with this id, or null when there is no such file.
  using ParentLookup =
      std::function<std::shared_ptr<const std::vector<CodexFingerprint>>(const std::string& id)>;

  explicit CodexRolloutParser(const ModelRateCard& card);
  ~CodexRolloutParser();

  /// The model and the readings of a read that has seen nothing yet.
  [[nodiscard]] static CodexReading freshReading();

  /// Takes one line of the rollout of session `sessionId`; an event that it makes is handed to `onEvent`.
  /// False when the line does not parse.
  bool take(const JsonLinesReader::Line& line, const std::string& sessionId, Instant now, LogTimes times,
            CodexRolloutState& state, CodexReading& reading, const ParentLookup& parents,
            const std::function<void(UsageEvent)>& onEvent);

  /// The token-count record of a line, for a child's comparison; absent for other lines.
  std::optional<CodexFingerprint> fingerprint(std::string_view line);

 private:
  struct Json;
  const ModelRateCard& card_;
  std::unique_ptr<Json> json_;
};

}  // namespace vimbrel
