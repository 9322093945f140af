// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageCoordinator.h"

#include <algorithm>
#include <future>
#include <utility>

#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "Domain/HookUsage.h"
#include "Domain/ModelRateCard.h"
#include "Support/SaturatingSum.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

constexpr std::size_t recentSessionCount = 25;
// So many events wait for the work queue at most, which an import of history keeps busy for long.
constexpr std::size_t mostPending = 4096;
// More directories of sessions than this are not kept in memory but added to the index.
constexpr std::size_t mostDirectories = 1024;

/// The window of a model that the card does not know.
std::int64_t defaultContextWindow(AgentType agent) {
  return agent == AgentType::gemini || agent == AgentType::antigravity ? 1'000'000 : 128'000;
}

/// The budget as far as a hook tells it; absent when it carries neither tokens nor a model.
std::optional<ProviderBudgetReport> reportOf(const HookEvent& event, Instant now, const ModelRateCard& card) {
  const auto consumed = saturatingAdd(event.inputTokens.value_or(0), event.outputTokens.value_or(0),
                                      event.reasoningTokens.value_or(0));
  if (consumed < 1 && !event.model) return std::nullopt;
  const auto* row = card.find(event.model);
  const auto window =
      row != nullptr && row->contextWindow ? *row->contextWindow : defaultContextWindow(event.agent);
  const auto usage = toUsageEvent(event, card);
  const auto price = usage ? usage->costEstimateUSD : std::nullopt;
  std::optional<CostBudget> cost;
  if (price) cost = CostBudget{std::max(*price, 0.0), true};
  return ProviderBudgetReport::make({
      .agentType = event.agent,
      .sessionId = event.sessionId,
      .modelId = event.model,
      .context =
          BudgetMetric<ContextBudget>::known(ContextBudget::create(window, consumed), 0.9, "relay-hook"),
      .quota = BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable")),
      .sessionUsage = UsageMetrics{.inputTokens = event.inputTokens,
                                   .outputTokens = event.outputTokens,
                                   .cachedTokens = event.cachedTokens,
                                   .reasoningTokens = event.reasoningTokens,
                                   .totalTokens = consumed,
                                   .contextWindow = window,
                                   .recordedAt = now},
      .cost = cost,
      .lastUpdated = now,
      .source = "relay-hook",
  });
}

}  // namespace

UsageCoordinator::UsageCoordinator(Parts parts, const Clock& clock)
    : parts_(std::move(parts)), clock_(clock) {
  for (const auto& provider : parts_.providers) {
    provider->onSessionDirectory = [directories = directories_](std::string_view session,
                                                                std::string_view directory) {
      directories->hear(session, directory);
    };
  }
}

UsageCoordinator::~UsageCoordinator() { cancelled_ = true; }

void UsageCoordinator::setOnTurnInterrupted(const TurnInterruptionHandler& handler) {
  for (const auto& provider : parts_.providers) provider->onTurnInterrupted = handler;
}

void UsageCoordinator::start() {
  {
    const std::lock_guard guard(lock_);
    if (std::exchange(isRunning_, true)) return;
  }
  cancelled_ = false;
  logger_.info("Starting UsageCoordinator and telemetry providers...");
  parts_.workQueue->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->openStoreIfNeeded();
    if (self->store_ && self->parts_.importHistory) {
      self->parts_.importHistory(*self->store_, self->owners_, self->cancelled_);
    }
    if (self->cancelled_) return;
    for (const auto& provider : self->parts_.providers) {
      provider->startMonitoring([weak](const UsageEvent& event) {
        if (const auto coordinator = weak.lock()) coordinator->handleUsageEvent(event);
      });
    }
    self->refreshBudgetReports();
    self->refreshSummaries();
  });
}

void UsageCoordinator::stop() {
  {
    const std::lock_guard guard(lock_);
    if (!std::exchange(isRunning_, false)) return;
  }
  cancelled_ = true;
  parts_.workQueue->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    for (const auto& provider : self->parts_.providers) provider->stopMonitoring();
    if (!self->store_) return;
    self->recordPending(*self->store_);
    self->keepDirectories();
    self->store_->stop();
  });
}

void UsageCoordinator::drain(std::chrono::milliseconds limit) {
  const auto drained = std::make_shared<std::promise<void>>();
  auto done = drained->get_future();
  parts_.workQueue->post([weak = weak_from_this(), drained] {
    // What came after the stop was answered, too.
    if (const auto self = weak.lock(); self && self->store_) {
      self->recordPending(*self->store_);
      self->keepDirectories();
      self->store_->stop();
    }
    drained->set_value();
  });
  if (done.wait_for(limit) != std::future_status::ready) {
    logger_.error("Usage that was reported last is not recorded: the store takes too long");
  }
}

void UsageCoordinator::openStoreIfNeeded() {
  if (store_ || openFailed_) return;
  auto opened = parts_.openStore();
  if (!opened) {
    openFailed_ = true;
    logger_.error("Usage is not recorded: %s", opened.error().c_str());
    return;
  }
  store_ = std::move(*opened);
  if (const auto priced = store_->priceUnpriced(*parts_.card); priced != 0) {
    logger_.info("%ld usage events of models without a price have got one", static_cast<long>(priced));
  }
  constexpr double always = 1e300;
  store_->forEachEvent(instantFromUnixSeconds(-always), instantFromUnixSeconds(always),
                       [this](const UsageEventView& event) { owners_.learn(event); });
  openedStore_ = store_.get();
}

void UsageCoordinator::importHistory(std::function<void()> done) {
  withStore([weak = weak_from_this(), done = std::move(done)](UsageStore* store) {
    const auto self = weak.lock();
    if (self && store != nullptr && self->parts_.importHistory) {
      self->keepDirectories();
      self->parts_.importHistory(*store, self->owners_, self->cancelled_);
      self->refreshBudgetReports();
      self->refreshSummaries();
    }
    if (done) done();
  });
}

void UsageCoordinator::withStore(std::function<void(UsageStore*)> work) {
  parts_.workQueue->post([weak = weak_from_this(), work = std::move(work)] {
    const auto self = weak.lock();
    if (!self) return;
    self->openStoreIfNeeded();
    work(self->store_.get());
  });
}

void UsageCoordinator::handleUsageEvent(const UsageEvent& event) {
  std::size_t waiting = 0;
  {
    const std::lock_guard guard(lock_);
    pending_.push_back(event);
    waiting = pending_.size();
  }
  if (waiting >= mostPending) {
    if (auto* store = openedStore_.load()) recordPending(*store);
  }
  if (waiting > 1) return;  // A flush is on its way and takes this one along.
  parts_.workQueue->post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->flush();
  });
}

/// Any thread.
void UsageCoordinator::recordPending(UsageStore& store) {
  std::vector<UsageEvent> events;
  {
    const std::lock_guard guard(lock_);
    events.swap(pending_);
  }
  for (auto& event : events) owners_.assign(event);
  if (store.recordAll(events) != 0) hasNews_ = true;
}

void UsageCoordinator::flush() {
  openStoreIfNeeded();
  if (!store_) {
    (void)directories_->take();
    const std::lock_guard guard(lock_);
    pending_.clear();
    return;
  }
  recordPending(*store_);
  if (directories_->size() > mostDirectories) keepDirectories();
  if (!hasNews_.exchange(false)) return;
  refreshBudgetReports();
  refreshSummaries();
}

/// On the work queue, with the store open.
void UsageCoordinator::keepDirectories() {
  if (parts_.indexPath.empty() || directories_->size() == 0) return;
  ImportIndex index(parts_.indexPath);
  const auto heard = directories_->take();
  for (const auto& [session, directory] : heard) {
    // Sessions that the store does not have are forgotten ones.
    if (store_->knowsSession(session) && !index.projectOf(session)) index.setProject(session, directory);
  }
  if (index.save()) return;
  for (const auto& [session, directory] : heard) directories_->hear(session, directory);
}

void UsageCoordinator::handleHookEvent(const HookEvent& event) {
  if (const auto usage = toUsageEvent(event, *parts_.card)) {
    if (event.cwd) directories_->hear(event.sessionId, *event.cwd);
    handleUsageEvent(*usage);
  }
  auto report = reportOf(event, clock_.now(), *parts_.card);
  if (!report) return;
  Reports reports;
  {
    const std::lock_guard guard(lock_);
    applyMeasured(*report);
    reports_.insert_or_assign(event.agent, *report);
    reports = reports_;
  }
  publishReports(std::move(reports));
}

void UsageCoordinator::applyMeasured(ProviderBudgetReport& report) const {
  const auto found = measured_.find(report.agentType);
  if (found == measured_.end()) return;
  const auto& measured = found->second;
  // A window that has ended tells nothing about the next one.
  if (measured.quota && !(measured.quota->resetsAt && *measured.quota->resetsAt < clock_.now())) {
    report.quota = BudgetMetric<AccountQuotaBudget>::known(*measured.quota, 1.0, measured.source);
  } else if (measured.quota && report.quota.source() == measured.source) {
    report.quota = BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable"));
  }
  if (measured.sessionId == report.sessionId) {
    if (measured.context) {
      report.context = BudgetMetric<ContextBudget>::known(*measured.context, 1.0, measured.source);
    }
    if (measured.cost) report.cost = measured.cost;
  }
  report.lowBudgetAlert.reset();
  report = ProviderBudgetReport::make(std::move(report));
}

/// With the lock held. A provider gives its last report each time it is asked: what a hook or the agent
/// itself has told of another session since then stands.
bool UsageCoordinator::knowsNewer(const ProviderBudgetReport& report) const {
  const auto known = reports_.find(report.agentType);
  if (known == reports_.end() || !known->second.sessionId) return false;
  if (known->second.sessionId == report.sessionId) return false;
  // A time that is still to come is from before the clock was set back.
  return report.lastUpdated < known->second.lastUpdated && known->second.lastUpdated <= clock_.now();
}

void UsageCoordinator::setMeasuredBudget(AgentType agent, MeasuredBudget budget) {
  Reports reports;
  {
    const std::lock_guard guard(lock_);
    auto& known = measured_[agent];
    // Accounts without a quota never tell one; one that was told stands until it is told again.
    if (!budget.quota) budget.quota = known.quota;
    if (budget.quota) budget.quota = AccountQuotaBudget::create(*std::move(budget.quota));
    known = std::move(budget);
    auto& report = reports_[agent];
    report.agentType = agent;
    if (report.source.empty()) report.source = known.source;
    // The agent speaks of the session that it shows, which is the one in use.
    if (known.sessionId && known.sessionId != report.sessionId) {
      report.sessionId = known.sessionId;
      report.context = BudgetMetric<ContextBudget>::unavailable(sentence("Context unavailable"));
      report.sessionUsage = {};
      report.cost.reset();
    }
    if (known.modelId) report.modelId = known.modelId;
    report.lastUpdated = clock_.now();
    applyMeasured(report);
    reports = reports_;
  }
  publishReports(std::move(reports));
}

void UsageCoordinator::refreshBudgetReports() {
  {
    const std::lock_guard guard(lock_);
    if (std::exchange(refreshPending_, true)) return;
  }
  // Each provider is asked on its own queue, one after the other, and the result is put together at the end.
  struct Round {
    std::vector<ProviderBudgetReport> found;
    std::function<void(std::size_t)> ask;
  };
  auto round = std::make_shared<Round>();
  round->ask = [weak = weak_from_this(), weakRound = std::weak_ptr(round)](std::size_t index) {
    const auto self = weak.lock();
    const auto current = weakRound.lock();
    if (!self || !current) return;
    if (index < self->parts_.providers.size()) {
      const auto& provider = self->parts_.providers[index];
      provider->queue()->post([provider, current, index] {
        if (auto report = provider->latestBudgetReport()) current->found.push_back(std::move(*report));
        current->ask(index + 1);
      });
      return;
    }
    Reports reports;
    {
      const std::lock_guard guard(self->lock_);
      self->refreshPending_ = false;
      for (auto& report : current->found) {
        if (self->knowsNewer(report)) report = self->reports_.at(report.agentType);
        self->applyMeasured(report);
        self->reports_.insert_or_assign(report.agentType, report);
      }
      reports = self->reports_;
    }
    self->publishReports(std::move(reports));
  };
  round->ask(0);
}

void UsageCoordinator::publishReports(Reports reports) {
  parts_.mainQueue->post([weak = weak_from_this(), reports = std::move(reports)]() mutable {
    const auto self = weak.lock();
    if (!self) return;
    Alerts alerts;
    for (const auto& [agent, report] : reports) {
      if (report.lowBudgetAlert) alerts.emplace(agent, *report.lowBudgetAlert);
    }
    // Evaluations hang on these; what did not change announces nothing.
    if (self->lowBudgetAlerts_.get() != alerts) self->lowBudgetAlerts_.set(std::move(alerts));
    if (self->latestBudgetReports_.get() != reports) self->latestBudgetReports_.set(std::move(reports));
  });
}

void UsageCoordinator::refreshSummaries() {
  withStore([weak = weak_from_this()](UsageStore* store) {
    const auto self = weak.lock();
    if (!self || store == nullptr) return;
    self->parts_.mainQueue->post(
        [weak, today = store->todaySummary(), recent = store->recentSessions(recentSessionCount)]() mutable {
          const auto coordinator = weak.lock();
          if (!coordinator) return;
          coordinator->todaySummary_.set(std::move(today));
          coordinator->recentSessions_.set(std::move(recent));
        });
  });
}

std::optional<ProviderBudgetReport> UsageCoordinator::budgetReport(AgentType agent) const {
  const std::lock_guard guard(lock_);
  const auto report = reports_.find(agent);
  return report == reports_.end() ? std::nullopt : std::optional(report->second);
}

void UsageCoordinator::resetUsageData() {
  withStore([weak = weak_from_this()](UsageStore* store) {
    const auto self = weak.lock();
    if (!self) return;
    // The index first: a crash in between then costs a reading of the history and nothing else.
    if (store != nullptr && !self->parts_.indexPath.empty()) ImportIndex::remove(self->parts_.indexPath);
    (void)self->directories_->take();
    if (store != nullptr) store->resetStore();
    {
      const std::lock_guard guard(self->lock_);
      self->reports_.clear();
    }
    self->publishReports({});
    self->refreshSummaries();
    self->logger_.info("UsageCoordinator telemetry data reset.");
  });
}

}  // namespace vimbrel
