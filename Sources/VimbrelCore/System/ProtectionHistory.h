// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Domain/ProtectionEpisode.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "System/CoordinatorService.h"

namespace vimbrel {

/// Keeps every time of protection: what held the machine awake, for how long, and how it ended. One line of
/// JSON for each in a file that is appended to and cut to its newest entries when it grows too long; the one
/// that goes on stands in a file beside it, so that a crash leaves it to be found. Queue: the main queue.
class ProtectionHistory final : public CoordinatorService {
 public:
  struct Options {
    std::string path = defaultPath();  ///< the file of ended episodes; the ongoing one is `path` + ".open"
    std::size_t mostEpisodes = 5000;
    /// How often the file of the ongoing episode is brought up to date, at most.
    Seconds checkpoint{60};
    /// Whether the system assertion is held now, and whether the closed lid is covered; may be empty.
    std::function<bool()> isHeld;
    std::function<bool()> isLidCovered;
    /// Whether the session with this identifier is a test of an integration, not an agent at work; may be
    /// empty.
    std::function<bool(const std::string&)> isOnTrial;
  };

  /// Reads what is there. An episode that was going on when the application last ended without a word is
  /// ended as interrupted. `clock` must outlive the object.
  ProtectionHistory(Options options, const Clock& clock);

  void didDecide(const PolicyEvaluationContext& context, const SessionSnapshot::Entries& newestFirst,
                 const WakeDecision& decision) override;
  void didApply(const WakeDecision& previous, const WakeDecision& next) override;
  void didStop() override;

  /// Episodes that overlap the time from `since` to `until`, oldest first, the ongoing one included.
  [[nodiscard]] std::vector<ProtectionEpisode> episodes(std::optional<Instant> since = {},
                                                        std::optional<Instant> until = {}) const;

  /// "Vimbrel/history.jsonl" under the user's application support directory.
  [[nodiscard]] static std::string defaultPath();

 private:
  void load();
  [[nodiscard]] bool isOnTrial(const AgentSession& session) const;
  void begin(const PolicyEvaluationContext& context);
  void update(const PolicyEvaluationContext& context, const WakeDecision::Hold& hold);
  /// Lets the open episode last until `now`.
  void extend(Instant now);
  void end(EpisodeEnding ending, std::optional<SafetyBlock> block);
  void writeOpen();
  void append(const ProtectionEpisode& episode);

  const Options options_;
  const Clock& clock_;
  const Logger logger_{"coordinator"};
  std::vector<ProtectionEpisode> ended_;
  std::optional<ProtectionEpisode> open_;
  std::optional<std::int64_t> lastBattery_;
  bool isUnheld_ = false;  ///< since the last decision was applied
  Instant lastWritten_{};
};

}  // namespace vimbrel
