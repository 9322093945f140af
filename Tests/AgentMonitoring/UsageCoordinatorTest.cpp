// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageCoordinator.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <nlohmann/json.hpp>

#include "AgentMonitoring/UsageImport/HistoryImport.h"
#include "AgentMonitoring/UsageMachine.h"
#include "Support/AtomicFile.h"
#include "Support/EventLoop.h"

namespace vimbrel {
namespace {

struct FakeProvider final : UsageMetricsProvider {
  explicit FakeProvider(AgentType type, std::shared_ptr<TaskQueue> own) : agent(type), own(std::move(own)) {}
  AgentType agentType() const override { return agent; }
  const std::shared_ptr<TaskQueue>& queue() const override { return own; }
  void startMonitoring(EventCallback onEvent) override { ++starts, deliver = std::move(onEvent); }
  void stopMonitoring() override { deliver = nullptr; }
  std::vector<UsageEvent> pollLatestEvents() override { return {}; }
  std::optional<ProviderBudgetReport> latestBudgetReport() override { return ++asked, report; }
  AgentType agent;
  std::shared_ptr<TaskQueue> own;
  int starts = 0;
  int asked = 0;
  EventCallback deliver;
  std::optional<ProviderBudgetReport> report;
};

class Usage : public testing::Test, protected UsageMachine {
 protected:
  Usage() {
    auto parts = this->parts();
    provider_ =
        std::make_shared<FakeProvider>(AgentType::claude, time_.makeQueue("claude", QueueHome::background));
    parts.providers = {provider_};
    parts.importHistory = [this](UsageStore& store, TurnOwners&, const std::atomic<bool>&) {
      EXPECT_EQ(provider_->starts, 0) << "history comes before the first poll";
      store.record(event("old", "msg_0", 5));
      if (importing_) importing_(store);
    };
    usage_ = std::make_shared<UsageCoordinator>(std::move(parts), time_);
  }
  UsageEvent event(const std::string& session, const std::string& turn, std::int64_t output) {
    return UsageEvent::make({.id = session + turn,
                             .agentType = AgentType::claude,
                             .sessionId = session,
                             .turnId = turn,
                             .modelId = "claude-opus-5",
                             .outputTokens = output,
                             .timestamp = time_.now(),
                             .source = "test"});
  }
  static ProviderBudgetReport reportWith(std::int64_t contextUsed) {
    return ProviderBudgetReport::make(
        {.agentType = AgentType::claude,
         .context = BudgetMetric<ContextBudget>::known(ContextBudget::create(100, contextUsed), 1, "test"),
         .source = "claude"});
  }
  [[nodiscard]] std::int64_t outputToday() const { return usage_->todaySummary().get().outputTokens; }
  [[nodiscard]] ProviderBudgetReport reportOfClaude() const {
    return usage_->latestBudgetReports().get().at(AgentType::claude);
  }
  [[nodiscard]] LowBudgetLevel alertOfClaude() const {
    return usage_->lowBudgetAlerts().get().at(AgentType::claude).level;
  }
  void refresh() {
    usage_->refreshBudgetReports();
    time_.runReady();
  }

  std::shared_ptr<FakeProvider> provider_;
  std::shared_ptr<UsageCoordinator> usage_;
  std::function<void(UsageStore& store)> importing_;
};

TEST_F(Usage, recordsWhatProvidersDeliverAndRefreshesOnceForAPoll) {
  usage_->start();
  usage_->start();
  time_.runReady();
  EXPECT_EQ(provider_->starts, 1);
  EXPECT_EQ(outputToday(), 5);
  const auto asked = provider_->asked;
  for (int i = 1; i <= 10; ++i) provider_->deliver(event("s", "msg_" + std::to_string(i), 10));
  time_.runReady();
  EXPECT_EQ(outputToday(), 105);
  EXPECT_EQ(usage_->recentSessions().get().size(), 2U);
  EXPECT_EQ(provider_->asked, asked + 1);
  // Known already, also under the session of a resumed conversation.
  provider_->deliver(event("s", "msg_1", 10));
  provider_->deliver(event("resumed", "msg_2", 10));
  time_.runReady();
  EXPECT_EQ(outputToday(), 105);
  EXPECT_EQ(provider_->asked, asked + 1);
  usage_->stop();
  time_.runReady();
  EXPECT_FALSE(provider_->deliver);
}

TEST_F(Usage, letsOnlySoManyEventsWaitForAnImport) {
  constexpr int count = 10'000;
  importing_ = [&](UsageStore& store) {
    const auto before = store.eventCount();
    for (int i = 0; i < count; ++i) usage_->handleUsageEvent(event("busy", std::to_string(i), 1));
    EXPECT_GE(store.eventCount(), before + count / 2) << "the work queue cannot take them meanwhile";
  };
  usage_->start();
  time_.runReady();
  EXPECT_EQ(outputToday(), 5 + count);
}

TEST_F(Usage, recordsWhatWasHandedOverBeforeItsEnd) {
  EventLoop loop;
  auto parts = this->parts();
  parts.mainQueue = loop.mainQueue();
  parts.workQueue = loop.makeQueue("work", QueueHome::background);
  parts.openStore = [&] {
    return UsageStore::open({.path = storePath()}, loop.makeQueue("store", QueueHome::background), time_);
  };
  std::promise<void> handedOver;
  parts.importHistory = [&](UsageStore&, TurnOwners&, const std::atomic<bool>&) {
    handedOver.get_future().wait();  // Nothing is recorded before everything waits.
  };
  const auto usage = std::make_shared<UsageCoordinator>(std::move(parts), time_);
  usage->start();
  for (int i = 0; i < 100; ++i) usage->handleUsageEvent(event("s", std::to_string(i), 1));
  usage->stop();
  usage->handleUsageEvent(event("s", "late", 1));
  handedOver.set_value();
  usage->drain(std::chrono::minutes(5));
  const auto stored = nlohmann::json::parse(readFile(storePath()).value_or("{}"));
  EXPECT_EQ(stored["events"].size(), 101U);
}

class UsageHistory : public Usage {
 protected:
  /// The coordinator as the application wires it, over a directory of Claude's logs.
  void start() {
    usage_.reset();
    auto parts = this->parts();
    parts.providers = {claude()};
    parts.importHistory = [import = std::make_shared<HistoryImport>(
                               UsageSources{.claudeRoots = {directory_.file("claude")},
                                            .codexHome = directory_.file("codex"),
                                            .openCodeDirectory = directory_.file("opencode")},
                               ModelRateCard::builtIn(), time_)](UsageStore& store, TurnOwners& owners,
                                                                 const std::atomic<bool>& cancelled) {
      import->run(store, owners, cancelled);
    };
    parts.indexPath = ImportIndex::defaultPath();
    usage_ = std::make_shared<UsageCoordinator>(std::move(parts), time_);
    usage_->start();
    time_.advance(std::chrono::seconds(10));
  }
  void answer(const std::string& session, const std::string& message, int output, Instant at) {
    const ClaudeAnswer answer{session, message, R"("output_tokens":)" + std::to_string(output),
                              formatIso8601(at, true), "/home/u/" + session};
    append("claude/projects/p/" + session + ".jsonl", answer.line(), at);
  }
  /// What is stored in all, and of today.
  std::pair<std::int64_t, std::int64_t> outputs() {
    std::pair<std::int64_t, std::int64_t> found;
    usage_->withStore([&](UsageStore* store) {
      found.second = store->todaySummary().outputTokens;
      for (const auto& event : store->allEvents()) found.first += event.outputTokens.value_or(0);
    });
    time_.runReady();
    return found;
  }
  [[nodiscard]] static bool doesIndexName(const std::string& text) {
    return readFile(ImportIndex::defaultPath()).value_or("").contains(text);
  }

  const Instant march_ = *parseIso8601("2026-03-01T10:00:00.5Z");
  const Instant today_ = *parseIso8601("2026-03-07T11:00:00.5Z");
};
using Outputs = std::pair<std::int64_t, std::int64_t>;

TEST_F(UsageHistory, staysForgottenAfterARestart) {
  answer("march", "msg_1", 100, march_);
  answer("today", "msg_2", 10, today_);
  start();
  EXPECT_EQ(outputs(), Outputs(110, 10));
  EXPECT_TRUE(doesIndexName("/home/u/march"));
  usage_->resetUsageData();
  time_.runReady();
  EXPECT_FALSE(std::filesystem::exists(ImportIndex::defaultPath()));
  for (int restart = 0; restart < 2; ++restart) {
    time_.advance(std::chrono::minutes(5));
    EXPECT_EQ(outputs(), Outputs(0, 0));
    start();
  }
  EXPECT_FALSE(doesIndexName("march"));
  answer("today", "msg_3", 1, time_.now());
  time_.advance(std::chrono::minutes(5));
  EXPECT_EQ(outputs(), Outputs(1, 1));
  start();
  EXPECT_EQ(outputs(), Outputs(1, 1));
}

TEST_F(UsageHistory, isReadAgainWithItsOwnTimesWhereTheStoreIsLost) {
  for (int i = 0; i < 8; ++i) {  // more than the live reading looks at
    answer("march" + std::to_string(i), "msg_" + std::to_string(i), 100, march_);
  }
  answer("today", "msg_today", 10, today_);
  const std::function<void()> losses[] = {[] {}, [&] { std::filesystem::remove(storePath()); },
                                          [&] { std::ofstream(storePath()) << "{"; }};
  for (const auto& lose : losses) {
    usage_.reset();
    lose();
    start();
    EXPECT_EQ(outputs(), Outputs(810, 10));
  }
}

TEST_F(Usage, publishesBudgetsAndTheirAlerts) {
  provider_->report = reportWith(85);
  usage_->start();
  time_.runReady();
  EXPECT_EQ(alertOfClaude(), LowBudgetLevel::warning);
  provider_->report.reset();
  refresh();
  EXPECT_TRUE(usage_->budgetReport(AgentType::claude)) << "a provider without a report keeps the one before";
  const AccountQuotaBudget quota{.percentageRemaining = 3, .resetsAt = time_.now() + Seconds(3600)};
  usage_->setMeasuredBudget(AgentType::claude, {.quota = quota, .source = "status-line"});
  provider_->report = reportWith(10);
  refresh();
  EXPECT_EQ(reportOfClaude().quota.source(), "status-line");
  EXPECT_EQ(alertOfClaude(), LowBudgetLevel::exhausted);
  // Context and cost are a session's; the quota is the account's, and ends with its window.
  usage_->setMeasuredBudget(
      AgentType::claude,
      {.sessionId = "s9", .context = ContextBudget::create(200000, 150000), .source = "status-line"});
  time_.runReady();
  EXPECT_EQ(reportOfClaude().sessionId, "s9");
  EXPECT_EQ(reportOfClaude().context.value()->tokensRemaining(), 50000);
  EXPECT_EQ(reportOfClaude().quota.value()->percentageRemaining, 3);
  refresh();
  EXPECT_EQ(reportOfClaude().sessionId, "s9") << "what a provider told of another session before";
  time_.advance(std::chrono::seconds(3601));
  provider_->report->lastUpdated = time_.now();
  refresh();
  EXPECT_NE(reportOfClaude().quota.source(), "status-line");
  EXPECT_NE(reportOfClaude().context.source(), "status-line") << "the provider tells of another session now";
  usage_->resetUsageData();
  time_.runReady();
  EXPECT_TRUE(usage_->latestBudgetReports().get().empty());
  EXPECT_TRUE(usage_->lowBudgetAlerts().get().empty());
  EXPECT_EQ(usage_->todaySummary().get().totalTokens, 0);
}

TEST_F(Usage, makesABudgetOfTheTokensThatAHookCarries) {
  usage_->start();
  HookEvent hook;
  hook.sessionId = "h";
  hook.timestamp = time_.now();
  hook.agent = AgentType::codex;
  usage_->handleHookEvent(hook);
  hook.agent = AgentType::gemini;
  hook.inputTokens = 52000;
  hook.model = "nobody-knows";
  usage_->handleHookEvent(hook);
  time_.runReady();
  EXPECT_FALSE(usage_->budgetReport(AgentType::codex));
  const auto report = *usage_->budgetReport(AgentType::gemini);
  EXPECT_EQ(report.context.value()->contextWindow(), 1000000);
  EXPECT_EQ(report.context.value()->tokensConsumed(), 52000);
  EXPECT_FALSE(report.cost);
  EXPECT_EQ(usage_->todaySummary().get().byAgent.at("gemini").inputTokens, 52000);
}

}  // namespace
}  // namespace vimbrel
