// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "AgentMonitoring/UsageImport/UsageImporter.h"

namespace vimbrel {

/// The imports of history, one after the other, and what is known of them while they run.
class HistoryImport {
 public:
  struct State {
    bool isRunning = false;
    ImportProgress progress;             ///< of the import that runs, or of the last one
    std::optional<ImportResult> latest;  ///< of the last one that ended
    std::uint64_t ended = 0;             ///< how many have ended since the start
  };

  /// `card` and `clock` must outlive this.
  HistoryImport(UsageSources sources, const ModelRateCard& card, const Clock& clock)
      : sources_(std::move(sources)), card_(card), clock_(clock) {}

  /// Blocks its caller; not twice at the same time. The first one opens the files that did not change, too,
  /// if the store may lack what was recorded earlier.
  void run(UsageStore& store, TurnOwners& owners, const std::atomic<bool>& cancelled);
  /// The next import opens the files that did not change, too. Any thread.
  void openEveryFileNextTime() { opensEveryFile_ = true; }
  /// Any thread.
  [[nodiscard]] State state() const;

 private:
  const UsageSources sources_;
  const ModelRateCard& card_;
  const Clock& clock_;
  std::atomic<bool> opensEveryFile_ = false;
  bool hasBegun_ = false;
  mutable std::mutex lock_;
  State state_;
};

}  // namespace vimbrel
