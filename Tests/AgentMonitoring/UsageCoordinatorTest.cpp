// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageCoordinator.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>

#include "AgentMonitoring/UsageImport/HistoryImport.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageReports.h"
#include "Support/AtomicFile.h"
#include "Support/EventLoop.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

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

class Usage : public testing::Test {
 protected:
  Usage() {
    ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
    UsageCoordinator::Parts parts;
    parts.mainQueue = time_.mainQueue();
    parts.workQueue = time_.makeQueue("work", QueueHome::background);
    parts.openStore = [this] {
      UsageStoreOptions options;
      options.path = directory_.file("Vimbrel/usage_store.json");
      return UsageStore::open(options, time_.mainQueue(), time_);
    };
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
  static ProviderBudgetReport reportWith(double contextUsed) {
    return ProviderBudgetReport::make(
        {.agentType = AgentType::claude,
         .context = BudgetMetric<ContextBudget>::known(
             ContextBudget::create(100, static_cast<std::int64_t>(contextUsed)), 1, "test"),
         .source = "claude"});
  }
  HookEvent hook(AgentType agent, std::optional<std::int64_t> input, std::optional<std::string> model) {
    HookEvent made;
    made.agent = agent;
    made.sessionId = "h";
    made.timestamp = time_.now();
    made.inputTokens = input;
    made.model = std::move(model);
    return made;
  }
  TemporaryDirectory directory_;
  VirtualTime time_{*parseIso8601("2026-03-07T12:00:00Z")};
  std::shared_ptr<FakeProvider> provider_;
  std::shared_ptr<UsageCoordinator> usage_;
  std::function<void(UsageStore& store)> importing_;
};

TEST_F(Usage, recordsWhatProvidersDeliverAndRefreshesOnceForAPoll) {
  usage_->start();
  usage_->start();
  time_.runReady();
  EXPECT_EQ(provider_->starts, 1);
  EXPECT_EQ(usage_->todaySummary().get().outputTokens, 5);
  const auto asked = provider_->asked;
  for (int i = 1; i <= 10; ++i) provider_->deliver(event("s", "msg_" + std::to_string(i), 10));
  time_.runReady();
  EXPECT_EQ(usage_->todaySummary().get().outputTokens, 105);
  EXPECT_EQ(usage_->recentSessions().get().size(), 2U);
  EXPECT_EQ(provider_->asked, asked + 1);
  // Known already, also under the session of a resumed conversation.
  provider_->deliver(event("s", "msg_1", 10));
  provider_->deliver(event("resumed", "msg_2", 10));
  time_.runReady();
  EXPECT_EQ(usage_->todaySummary().get().outputTokens, 105);
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
  EXPECT_EQ(usage_->todaySummary().get().outputTokens, 5 + count);
}

TEST_F(Usage, recordsWhatWasHandedOverBeforeItsEnd) {
  UsageStoreOptions options;
  options.path = directory_.file("Vimbrel/orderly.json");
  {
    EventLoop loop;  // With its threads goes the store, whose lock keeps the next one out.
    UsageCoordinator::Parts parts;
    parts.mainQueue = loop.mainQueue();
    parts.workQueue = loop.makeQueue("work", QueueHome::background);
    parts.openStore = [&] {
      return UsageStore::open(options, loop.makeQueue("store", QueueHome::background), time_);
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
  }
  const auto store = UsageStore::open(options, time_.mainQueue(), time_);
  ASSERT_TRUE(store) << store.error();
  EXPECT_EQ((*store)->eventCount(), 101U);
}

class UsageHistory : public Usage {
 protected:
  /// The coordinator as the application wires it, over a directory of Claude's logs.
  void start() {
    usage_.reset();
    UsageCoordinator::Parts parts;
    parts.mainQueue = time_.mainQueue();
    parts.workQueue = time_.makeQueue("work", QueueHome::background);
    parts.openStore = [this] { return UsageStore::open({.path = storePath()}, time_.mainQueue(), time_); };
    parts.providers = {std::make_shared<ClaudeUsageProvider>(std::vector{directory_.file("claude")},
                                                             time_.makeQueue("claude", QueueHome::background),
                                                             time_, ModelRateCard::builtIn(), nullptr)};
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
  void append(const std::string& name, const std::string& message, std::int64_t output, Instant at) {
    const auto path = directory_.file("claude/projects/p/" + name + ".jsonl");
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::app)
        << R"({"type":"assistant","cwd":"/home/u/)" << name << R"(","sessionId":")" << name
        << R"(","timestamp":")" << formatIso8601(at, true) << R"(","message":{"id":")" << message
        << R"(","model":"claude-opus-5","usage":{"output_tokens":)" << output << "}}}\n";
    const utimbuf times{static_cast<std::time_t>(unixSeconds(at)), static_cast<std::time_t>(unixSeconds(at))};
    utime(path.c_str(), &times);
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
  [[nodiscard]] std::string storePath() const { return directory_.file("Vimbrel/usage_store.json"); }
};
using Outputs = std::pair<std::int64_t, std::int64_t>;

TEST_F(UsageHistory, staysForgottenAfterARestart) {
  append("march", "msg_1", 100, *parseIso8601("2026-03-01T10:00:00.5Z"));
  append("today", "msg_2", 10, *parseIso8601("2026-03-07T11:00:00.5Z"));
  start();
  EXPECT_EQ(outputs(), Outputs(110, 10));
  EXPECT_NE(readFile(ImportIndex::defaultPath()).value_or("").find("/home/u/march"), std::string::npos);
  usage_->resetUsageData();
  time_.runReady();
  EXPECT_FALSE(std::filesystem::exists(ImportIndex::defaultPath()));
  for (int restart = 0; restart < 2; ++restart) {
    time_.advance(std::chrono::minutes(5));
    EXPECT_EQ(outputs(), Outputs(0, 0));
    start();
  }
  EXPECT_EQ(readFile(ImportIndex::defaultPath()).value_or("").find("march"), std::string::npos);
  append("today", "msg_3", 1, time_.now());
  time_.advance(std::chrono::minutes(5));
  EXPECT_EQ(outputs(), Outputs(1, 1));
  start();
  EXPECT_EQ(outputs(), Outputs(1, 1));
}

TEST_F(UsageHistory, isReadAgainWithItsOwnTimesWhereTheStoreIsLost) {
  for (int i = 0; i < 8; ++i) {  // more than the live reading looks at
    append("march" + std::to_string(i), "msg_" + std::to_string(i), 100,
           *parseIso8601("2026-03-01T10:00:00.5Z"));
  }
  append("today", "msg_today", 10, *parseIso8601("2026-03-07T11:00:00.5Z"));
  start();
  EXPECT_EQ(outputs(), Outputs(810, 10));
  usage_.reset();
  std::filesystem::remove(storePath());
  start();
  EXPECT_EQ(outputs(), Outputs(810, 10));
  usage_.reset();
  std::ofstream(storePath()) << "{";
  start();
  EXPECT_EQ(outputs(), Outputs(810, 10));
}

TEST_F(Usage, publishesBudgetsAndTheirAlerts) {
  provider_->report = reportWith(85);
  usage_->start();
  time_.runReady();
  EXPECT_EQ(usage_->lowBudgetAlerts().get().at(AgentType::claude).level, LowBudgetLevel::warning);
  provider_->report.reset();
  usage_->refreshBudgetReports();
  time_.runReady();
  EXPECT_TRUE(usage_->budgetReport(AgentType::claude)) << "a provider without a report keeps the one before";
  const AccountQuotaBudget quota{.percentageRemaining = 3, .resetsAt = time_.now() + Seconds(3600)};
  usage_->setMeasuredBudget(AgentType::claude, {.quota = quota, .source = "status-line"});
  provider_->report = reportWith(10);
  usage_->refreshBudgetReports();
  time_.runReady();
  EXPECT_EQ(usage_->latestBudgetReports().get().at(AgentType::claude).quota.source(), "status-line");
  EXPECT_EQ(usage_->lowBudgetAlerts().get().at(AgentType::claude).level, LowBudgetLevel::exhausted);
  // Context and cost are a session's; the quota is the account's, and ends with its window.
  usage_->setMeasuredBudget(
      AgentType::claude,
      {.sessionId = "s9", .context = ContextBudget::create(200000, 150000), .source = "status-line"});
  time_.runReady();
  auto claude = usage_->latestBudgetReports().get().at(AgentType::claude);
  EXPECT_EQ(claude.sessionId, "s9");
  EXPECT_EQ(claude.context.value()->tokensRemaining(), 50000);
  EXPECT_EQ(claude.quota.value()->percentageRemaining, 3);
  usage_->refreshBudgetReports();
  time_.runReady();
  EXPECT_EQ(usage_->latestBudgetReports().get().at(AgentType::claude).sessionId, "s9")
      << "what a provider told of another session before";
  time_.advance(std::chrono::seconds(3601));
  provider_->report->lastUpdated = time_.now();
  usage_->refreshBudgetReports();
  time_.runReady();
  claude = usage_->latestBudgetReports().get().at(AgentType::claude);
  EXPECT_NE(claude.quota.source(), "status-line");
  EXPECT_NE(claude.context.source(), "status-line") << "the provider tells of another session now";
  usage_->resetUsageData();
  time_.runReady();
  EXPECT_TRUE(usage_->latestBudgetReports().get().empty());
  EXPECT_TRUE(usage_->lowBudgetAlerts().get().empty());
  EXPECT_EQ(usage_->todaySummary().get().totalTokens, 0);
}

TEST_F(Usage, makesABudgetOfTheTokensThatAHookCarries) {
  usage_->start();
  time_.runReady();
  usage_->handleHookEvent(hook(AgentType::codex, {}, {}));
  time_.runReady();
  EXPECT_FALSE(usage_->budgetReport(AgentType::codex));
  usage_->handleHookEvent(hook(AgentType::gemini, 52000, "nobody-knows"));
  time_.runReady();
  const auto report = *usage_->budgetReport(AgentType::gemini);
  EXPECT_EQ(report.context.value()->contextWindow(), 1000000);
  EXPECT_EQ(report.context.value()->tokensConsumed(), 52000);
  EXPECT_FALSE(report.cost);
  EXPECT_EQ(report.source, "relay-hook");
  EXPECT_EQ(usage_->todaySummary().get().byAgent.at("gemini").inputTokens, 52000);
}

TEST_F(Usage, reportsByDayWeekMonthModelProjectAndBillingWindow) {
  UsageStoreOptions options;
  options.path = directory_.file("Vimbrel/other.json");
  auto store = std::move(*UsageStore::open(options, time_.mainQueue(), time_));
  int turn = 0;
  for (const char* time : {"2025-12-29T23:30:00Z", "2026-01-01T00:30:00Z", "2026-01-01T05:29:00Z",
                           "2026-01-01T05:31:00Z", "2026-01-31T12:00:00Z"}) {
    auto made = event(turn % 2 == 0 ? "even" : "odd", "t" + std::to_string(turn), turn + 1);
    ++turn;
    made.timestamp = *parseIso8601(time);
    ASSERT_TRUE(store->record(made));
  }
  const auto rows = [&](UsageGrouping grouping, std::optional<Instant> since = {}) {
    const auto report =
        makeUsageReport(*store, {.grouping = grouping, .since = since}, [](std::string_view session) {
          return session == "even" ? std::optional<std::string>("/p") : std::nullopt;
        });
    std::string text;
    std::int64_t sum = 0;
    for (const auto& row : report.rows) {
      text += row.key + "=" + std::to_string(row.summary.outputTokens) + " ";
      sum += row.summary.outputTokens;
    }
    EXPECT_EQ(sum, report.total.outputTokens);
    return text;
  };
  EXPECT_EQ(rows(UsageGrouping::daily), "2025-12-29=1 2026-01-01=9 2026-01-31=5 ");
  EXPECT_EQ(rows(UsageGrouping::weekly), "2026-W01=10 2026-W05=5 ");
  EXPECT_EQ(rows(UsageGrouping::monthly), "2025-12=1 2026-01=14 ");
  EXPECT_EQ(rows(UsageGrouping::monthly, parseIso8601("2026-01-01T05:30:00Z")), "2026-01=9 ");
  EXPECT_EQ(rows(UsageGrouping::sessions), "even=9 odd=6 ");
  EXPECT_EQ(rows(UsageGrouping::models), "claude-opus-5=15 ");
  EXPECT_EQ(rows(UsageGrouping::projects), "/p=9 unknown=6 ");
  // A window begins at the full hour of its first use and ends five hours later.
  EXPECT_EQ(rows(UsageGrouping::blocks),
            "2025-12-29T23:00:00Z=1 2026-01-01T00:00:00Z=2 2026-01-01T05:00:00Z=7 2026-01-31T12:00:00Z=5 ");
}

}  // namespace
}  // namespace vimbrel
