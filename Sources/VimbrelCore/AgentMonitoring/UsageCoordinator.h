// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageImport/SessionDirectories.h"
#include "AgentMonitoring/UsageImport/TurnOwners.h"
#include "AgentMonitoring/UsageProviders/UsageMetricsProvider.h"
#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "Domain/HookEvent.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageSummary.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "Support/Published.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// What an agent itself told about its budget; what it did not tell is absent.
struct MeasuredBudget {
  std::optional<std::string> sessionId{};
  std::optional<std::string> modelId{};
  std::optional<AccountQuotaBudget> quota{};
  std::optional<ContextBudget> context{};  ///< of the session
  std::optional<CostBudget> cost{};        ///< of the session
  std::string source;                      ///< tag of whoever measured
};

/// The single owner of usage telemetry at run time: records what the providers and the hooks report, and
/// publishes today's summary, the recent sessions, and each agent's latest budget with its alert.
///
/// The store, the import of history and every recording live on one background queue, so nothing here holds
/// up a hook or the main queue. Operations may be called from any thread; published values belong to the main
/// queue.
class UsageCoordinator : public std::enable_shared_from_this<UsageCoordinator> {
 public:
  using Reports = std::map<AgentType, ProviderBudgetReport>;
  using Alerts = std::map<AgentType, LowBudgetAlert>;

  struct Parts {
    std::shared_ptr<TaskQueue> mainQueue;
    std::shared_ptr<TaskQueue> workQueue;  ///< a background queue
    /// Opens the store; called once, on the work queue. The error is a sentence.
    std::function<std::expected<std::unique_ptr<UsageStore>, std::string>()> openStore;
    /// In the order in which they are started and asked.
    std::vector<std::shared_ptr<UsageMetricsProvider>> providers;
    /// Reads history into the store before the providers' first poll; on the work queue, until `cancelled`.
    std::function<void(UsageStore& store, TurnOwners& owners, const std::atomic<bool>& cancelled)>
        importHistory;
    /// The import's index. What is heard of sessions' directories is added to it, and a reset removes it.
    /// Empty for none.
    std::string indexPath{};
    /// Prices what hooks report; must outlive the coordinator.
    const ModelRateCard* card = &ModelRateCard::builtIn();
  };

  /// `clock` must outlive the coordinator.
  UsageCoordinator(Parts parts, const Clock& clock);
  ~UsageCoordinator();
  UsageCoordinator(const UsageCoordinator&) = delete;
  UsageCoordinator& operator=(const UsageCoordinator&) = delete;

  /// Hears, on the providers' queues, of turns that their users interrupted. Before `start`.
  void setOnTurnInterrupted(const TurnInterruptionHandler& handler);
  void start();
  /// What was handed over until now is recorded, on the work queue.
  void stop();
  /// After `stop`, waits until all that was handed over is recorded, but at most so long. Not on virtual
  /// time.
  void drain(std::chrono::milliseconds limit);
  /// Records one event. What several events change is refreshed once.
  void handleUsageEvent(const UsageEvent& event);
  /// Records the tokens that a hook carries and makes them the agent's budget report.
  void handleHookEvent(const HookEvent& event);
  void refreshBudgetReports();
  void refreshSummaries();
  /// A measured quota stays the quota of the agent's reports until it is measured again or its window ends;
  /// measured context and cost stay those of reports on the same session.
  void setMeasuredBudget(AgentType agent, MeasuredBudget budget);
  [[nodiscard]] std::optional<ProviderBudgetReport> budgetReport(AgentType agent) const;
  /// Forgets all that was recorded, and what the import knows of it.
  void resetUsageData();

  /// Imports history once more, on the work queue; `done` is called there. Does nothing else without a store.
  void importHistory(std::function<void()> done);
  /// Runs `work` on the work queue with the open store; `work` gets null when there is none.
  void withStore(std::function<void(UsageStore* store)> work);

  /// What was heard of sessions' directories and may not be in the index yet.
  [[nodiscard]] const SessionDirectories& directories() const { return *directories_; }

  Published<UsageSummary>& todaySummary() { return todaySummary_; }
  Published<std::vector<SessionUsageRecord>>& recentSessions() { return recentSessions_; }
  Published<Reports>& latestBudgetReports() { return latestBudgetReports_; }
  Published<Alerts>& lowBudgetAlerts() { return lowBudgetAlerts_; }

 private:
  void openStoreIfNeeded();
  void flush();
  void recordPending(UsageStore& store);
  void keepDirectories();
  void publishReports(Reports reports);
  void applyMeasured(ProviderBudgetReport& report) const;
  [[nodiscard]] bool knowsNewer(const ProviderBudgetReport& report) const;

  const Parts parts_;
  const Clock& clock_;
  const Logger logger_{"usage.coordinator"};

  mutable std::mutex lock_;  // guards what follows, up to the blank line
  bool isRunning_ = false;
  std::vector<UsageEvent> pending_;
  Reports reports_;
  std::map<AgentType, MeasuredBudget> measured_;
  bool refreshPending_ = false;

  std::atomic<bool> cancelled_ = false;
  TurnOwners owners_;
  const std::shared_ptr<SessionDirectories> directories_ = std::make_shared<SessionDirectories>();
  std::unique_ptr<UsageStore> store_;               // the work queue's
  std::atomic<UsageStore*> openedStore_ = nullptr;  // for the other threads, as soon as it is loaded
  std::atomic<bool> hasNews_ = false;               // recorded, but not refreshed yet
  bool openFailed_ = false;

  Published<UsageSummary> todaySummary_{UsageSummary{}};
  Published<std::vector<SessionUsageRecord>> recentSessions_{{}};
  Published<Reports> latestBudgetReports_{{}};
  Published<Alerts> lowBudgetAlerts_{{}};
};

}  // namespace vimbrel
