// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "AgentMonitoring/TurnInterruption.h"
#include "Domain/AgentType.h"
#include "Domain/BudgetIntelligence.h"
#include "Domain/UsageEvent.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Reads the usage of one agent out of the agent's own logs or database.
///
/// Every provider has a serial queue of its own, on which it polls; it may block there. `startMonitoring` and
/// `stopMonitoring` may be called from any thread and do not wait; polling and the report belong on the
/// provider's queue, so a caller posts to `queue()`.
class UsageMetricsProvider {
 public:
  /// Called on the provider's queue for each event that is read. The same usage can come again (after a
  /// restart, or by overlapping reads); the usage store absorbs repeats.
  using EventCallback = std::function<void(const UsageEvent&)>;

  virtual ~UsageMetricsProvider() = default;

  [[nodiscard]] virtual AgentType agentType() const = 0;
  [[nodiscard]] virtual const std::shared_ptr<TaskQueue>& queue() const = 0;
  /// Polls once and then periodically until `stopMonitoring`.
  virtual void startMonitoring(EventCallback onEvent) = 0;
  /// Ends the periodic reading; once a poll in progress has ended, no callback follows.
  virtual void stopMonitoring() = 0;
  /// Reads the source once and returns what was found since the read before, handing each event to the
  /// callback as well when there is one.
  virtual std::vector<UsageEvent> pollLatestEvents() = 0;
  /// The latest view of context, quota and cost; absent for a provider that tracks no budget or has seen
  /// none.
  [[nodiscard]] virtual std::optional<ProviderBudgetReport> latestBudgetReport() { return std::nullopt; }

  /// Called on the provider's queue for each turn that the log shows as interrupted, if this log shows it,
  /// the last of those that were read at once. The same can come again. Set before `startMonitoring`.
  TurnInterruptionHandler onTurnInterrupted;
  /// Called on the provider's queue with the directory of a session whose events follow, if the source names
  /// one. The same comes again. Set before `startMonitoring`.
  std::function<void(std::string_view session, std::string_view directory)> onSessionDirectory;
};

}  // namespace vimbrel
