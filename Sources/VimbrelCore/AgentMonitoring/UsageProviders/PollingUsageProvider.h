// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageProviders/UsageMetricsProvider.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// What the providers have in common: a queue of their own, a first poll and then one at an interval, the
/// callback and the latest report. A provider says how its source is read.
class PollingUsageProvider : public UsageMetricsProvider,
                             public std::enable_shared_from_this<PollingUsageProvider> {
 public:
  [[nodiscard]] AgentType agentType() const final { return agent_; }
  [[nodiscard]] const std::shared_ptr<TaskQueue>& queue() const final { return queue_; }
  void startMonitoring(EventCallback onEvent) final;
  void stopMonitoring() final;
  std::vector<UsageEvent> pollLatestEvents() final;
  [[nodiscard]] std::optional<ProviderBudgetReport> latestBudgetReport() final;

 protected:
  /// `startMessage` is logged when the monitoring begins.
  PollingUsageProvider(AgentType agent, std::shared_ptr<TaskQueue> queue, std::chrono::milliseconds interval,
                       const Clock& clock, Logger logger, std::string startMessage);

  /// Everything that was found since the read before.
  virtual std::vector<UsageEvent> readSource() = 0;
  /// False when the source certainly has nothing new. Called on the tick queue, in microseconds, and never
  /// while the source is being read.
  virtual bool sourceMayHaveChanged() { return true; }
  /// Called when there is no report yet: looks at the newest record without counting it as read.
  virtual void findReport() = 0;

  /// Asks on `queue`, usually the main queue, whether there is anything to read, so that the provider's own
  /// thread is not woken for nothing. Without it every poll goes to the provider's queue. Call before the
  /// monitoring starts.
 public:
  void setTickQueue(std::shared_ptr<TaskQueue> queue) { tickQueue_ = std::move(queue); }

 protected:
  void setReport(ProviderBudgetReport report) { report_ = std::move(report); }
  [[nodiscard]] const std::optional<ProviderBudgetReport>& report() const { return report_; }
  [[nodiscard]] const Clock& clock() const { return clock_; }

 private:
  const AgentType agent_;
  const std::shared_ptr<TaskQueue> queue_;
  const std::chrono::milliseconds interval_;
  const Clock& clock_;
  const Logger logger_;
  const std::string startMessage_;

  std::mutex lock_;  // guards the two below; the rest belongs to the queue
  EventCallback onEvent_;
  Token timer_;
  std::optional<ProviderBudgetReport> report_;
  std::shared_ptr<TaskQueue> tickQueue_;
  std::atomic<bool> isReading_ = false;  // from the tick that found something to the end of the poll
  std::mutex sourceLock_;                // held while the source is read or looked at
};

}  // namespace vimbrel
