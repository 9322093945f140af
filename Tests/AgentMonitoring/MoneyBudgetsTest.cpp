// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AgentMonitoring/MoneyBudgets/MoneyBudgetBook.h"
#include "AgentMonitoring/MoneyBudgets/MoneyBudgetWatch.h"
#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "AgentMonitoring/UsageMachine.h"
#include "Support/AtomicFile.h"

namespace vimbrel {
namespace {

// A Wednesday in a week, and a month, that contain a change to summer time in Berlin.
const Instant now = *parseIso8601("2026-03-25T18:00:00+01:00");

class MoneyBudgets : public testing::Test, protected UsageMachine {
 protected:
  MoneyBudgets() : UsageMachine(now) {}

  void spend(std::optional<double> dollars, const char* at, AgentType agent = AgentType::claude,
             const std::string& session = "s") {
    const auto event = UsageEvent::make({.id = "e" + std::to_string(++turns_),
                                         .agentType = agent,
                                         .sessionId = session,
                                         .turnId = std::to_string(turns_),
                                         .inputTokens = 100,
                                         .costEstimateUSD = dollars,
                                         .timestamp = *parseIso8601(at),
                                         .source = "test"});
    ASSERT_TRUE(store_->record(event));
  }
  [[nodiscard]] BudgetStanding standing(const BudgetScope& scope, double amount = 100,
                                        Instant at = now) const {
    const MoneyBudget budget{scope, amount};
    return budgetStandings(*store_, {&budget, 1}, at, *CalendarZone::named("Europe/Berlin"),
                           [](std::string_view session) { return "/home/me/" + std::string(session); })
        .front();
  }
  /// The application, with what its budgets said in `said_`.
  void start(std::vector<std::shared_ptr<UsageMetricsProvider>> providers = {}) {
    watch_.reset();
    usage_.reset();
    auto parts = this->parts();
    parts.providers = std::move(providers);
    parts.indexPath = ImportIndex::defaultPath();
    usage_ = std::make_shared<UsageCoordinator>(std::move(parts), time_);
    watch_ = std::make_shared<MoneyBudgetWatch>(usage_, book_, time_, time_.mainQueue());
    watch_->start([this](const MoneyBudgetNotice& notice) {
      said_.push_back(notice.title() + ": " + notice.message());
    });
    usage_->start();
    time_.advance(std::chrono::seconds(10));
  }
  [[nodiscard]] std::string path() const { return directory_.file("com.vimbrel.app/budgets.json"); }

  std::unique_ptr<UsageStore> store_ = *openStore();
  int turns_ = 0;
  std::shared_ptr<MoneyBudgetBook> book_ = std::make_shared<MoneyBudgetBook>(path());
  std::shared_ptr<UsageCoordinator> usage_;
  std::shared_ptr<MoneyBudgetWatch> watch_;
  std::vector<std::string> said_;
};

TEST_F(MoneyBudgets, countTheMoneyOfTheirPeriodAndScope) {
  spend(1, "2026-03-01T00:30:00+01:00");
  spend(2, "2026-02-28T23:59:59+01:00");
  spend(4, "2026-03-23T00:00:00+01:00");
  spend(8, "2026-03-22T23:59:59+01:00");
  spend(16, "2026-03-25T12:00:00Z", AgentType::codex);
  spend(32, "2026-03-25T17:00:00Z", AgentType::claude, "project/below");
  spend(64, "2026-03-25T17:00:00Z", AgentType::claude, "projectile");
  spend(std::nullopt, "2026-03-25T17:00:00Z");
  spend(-1000, "2026-03-25T17:00:00Z");
  struct Case {
    BudgetScope scope;
    double spent;
  };
  for (const auto& [scope, spent] : {
           Case{{BudgetPeriod::daily}, 16 + 32 + 64},
           Case{{BudgetPeriod::weekly}, 4 + 16 + 32 + 64},
           Case{{BudgetPeriod::monthly}, 1 + 4 + 8 + 16 + 32 + 64},
           Case{{BudgetPeriod::daily, AgentType::codex}, 16},
           Case{{BudgetPeriod::weekly, std::nullopt, "/home/me/project"}, 32},
           Case{{BudgetPeriod::monthly, AgentType::codex, "/home/me/project"}, 0},
       }) {
    EXPECT_EQ(standing(scope).spentUSD, spent) << describe(scope);
  }
  EXPECT_EQ(standing({BudgetPeriod::daily}).unpricedTokens, 100);
  // The week from Monday to Monday has an hour less: the clocks change on its Sunday.
  const auto week = standing({BudgetPeriod::weekly});
  EXPECT_EQ(unixSeconds(week.periodEnd) - unixSeconds(week.periodStart), 7 * 86400 - 3600);
}

TEST_F(MoneyBudgets, forecastByPaceButNotFromAFewMinutes) {
  spend(12, "2026-03-25T08:00:00+01:00");
  const auto day = standing({BudgetPeriod::daily}, 10);
  EXPECT_DOUBLE_EQ(day.forecastUSD, 12 * 24.0 / 18);
  EXPECT_TRUE(day.isOver());
  EXPECT_DOUBLE_EQ(day.usedPercent(), 120);
  const auto early = standing({BudgetPeriod::daily}, 10, *parseIso8601("2026-03-25T00:01:00+01:00"));
  EXPECT_DOUBLE_EQ(early.forecastUSD, 120) << "the pace of a tenth of the day";
}

TEST_F(MoneyBudgets, areKeptInAFileThatPeopleMayEdit) {
  ASSERT_TRUE(book_->set({{BudgetPeriod::daily}, 5}));
  ASSERT_TRUE(book_->set({{BudgetPeriod::weekly, AgentType::codex, "/p"}, 20}));
  ASSERT_TRUE(book_->set({{BudgetPeriod::daily}, 6}));
  EXPECT_EQ(*MoneyBudgetBook(path()).budgets(), *book_->budgets());
  ASSERT_EQ(book_->budgets()->size(), 2U);
  EXPECT_EQ(book_->budgets()->front().amountUSD, 6);
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_FALSE(*book_->remove({BudgetPeriod::weekly}));
  EXPECT_TRUE(*book_->remove({BudgetPeriod::weekly, AgentType::codex, "/p"}));

  for (const char* bad : {"{", "[]", R"({"budgets":{}})", R"({"budgets":[{"period":"daily"}]})",
                          R"({"budgets":[{"period":"hourly","amountUSD":1}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":0}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":1,"agent":"nobody"}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":1,"project":"here"}]})"}) {
    std::ofstream(path()) << bad;
    EXPECT_FALSE(book_->budgets()) << bad;
    EXPECT_FALSE(book_->set({{BudgetPeriod::monthly}, 1})) << "what cannot be read is not written over";
    EXPECT_EQ(readFile(path()), bad);
  }
  std::ofstream(path()) << R"({"budgets":[{"period":"monthly","amountUSD":9,"project":"/p/"}]})";
  ASSERT_TRUE(book_->budgets());
  EXPECT_EQ(book_->budgets()->front().scope.project, "/p");
}

TEST_F(MoneyBudgets, announceEachThresholdOnceInAPeriodAlsoOverRestarts) {
  ASSERT_TRUE(book_->set({{BudgetPeriod::monthly}, 10}));
  const auto dueAt = [&](double spent, int day) {
    MoneyBudgetBook book(path());
    std::string titles;
    const BudgetStanding standing{.budget = book.budgets()->front(),
                                  .periodStart = instantFromUnixSeconds(day * 86400.0),
                                  .spentUSD = spent};
    for (const auto& notice : book.takeDueNotices({standing})) {
      titles += notice.title();
      EXPECT_TRUE(notice.message().contains(" (monthly) is spent; at this pace")) << notice.message();
    }
    return titles;
  };
  EXPECT_EQ(dueAt(7.99, 1), "");
  EXPECT_EQ(dueAt(8, 1), "Budget 80 % spent");
  EXPECT_EQ(dueAt(9, 1), "");
  EXPECT_EQ(dueAt(10, 1), "Budget spent");
  EXPECT_EQ(dueAt(50, 1), "");
  EXPECT_EQ(dueAt(50, 2), "Budget spent") << "the lower threshold is passed over";
  EXPECT_EQ(dueAt(8, 3), "Budget 80 % spent");
  ASSERT_TRUE(book_->set({{BudgetPeriod::monthly}, 20}));
  EXPECT_EQ(dueAt(16, 3), "Budget 80 % spent") << "another amount is another budget";
}

TEST_F(MoneyBudgets, countSessionsThatBeganSinceTheImport) {
  store_.reset();
  // A million tokens of output cost 75 dollars.
  const std::vector<std::pair<std::string, double>> cases{
      {"/home/me/logged", 75}, {"/home/me/hooked", 150}, {"/home/me/opened", 0.5}};
  for (const auto& [directory, spent] : cases) {
    ASSERT_TRUE(book_->set({{BudgetPeriod::daily, std::nullopt, directory}, 1}));
  }
  const auto requireStandings = [&] {
    usage_->withStore([&](UsageStore* store) {
      ASSERT_TRUE(store);
      const auto standings = standingsNow(*store, *book_, time_.now(), usage_->directories());
      ASSERT_TRUE(standings);
      std::vector<std::pair<std::string, double>> found;
      for (const auto& each : *standings) found.emplace_back(*each.budget.scope.project, each.spentUSD);
      EXPECT_EQ(found, cases);
    });
    time_.runReady();
  };
  start({claude(), openCode()});
  append("claude/projects/p/s.jsonl", ClaudeAnswer{.usage = R"("output_tokens":1000000)",
                                                   .time = "2026-03-25T17:00:00Z",
                                                   .directory = "/home/me/logged"}
                                          .line());
  OpenCodeWriter writer(directory_.file("opencode/opencode.db"));
  writer.execute("INSERT INTO session VALUES('o', NULL, '/home/me/opened'), ('p', NULL, '/home/me/hooked');");
  writer.put("m", static_cast<std::int64_t>(unixSeconds(now)) * 1000, R"({"cost":0.5,"tokens":{"output":7}})",
             "o");
  writer.close();
  HookEvent hook;
  hook.agent = AgentType::gemini;
  hook.sessionId = "h";
  hook.timestamp = now;
  hook.cwd = "/home/me/hooked";
  hook.outputTokens = 2'000'000;
  hook.model = "claude-opus-5";
  usage_->handleHookEvent(hook);
  time_.advance(std::chrono::minutes(3));
  requireStandings();
  ASSERT_EQ(said_.size(), 2U) << "of those that are overspent";
  EXPECT_TRUE(said_[0].starts_with("Budget spent: $150.00 of the budget of $1.00 (daily in /home/me/hooked)"))
      << said_[0];
  // Not every session has a log to be read again.
  usage_->stop();
  time_.runReady();
  start({claude(), openCode()});
  EXPECT_EQ(ImportIndex().projectOf("h"), "/home/me/hooked");
  EXPECT_EQ(ImportIndex().projectOf("p"), std::nullopt) << "a session without usage";
  requireStandings();
  usage_->resetUsageData();
  time_.runReady();
  EXPECT_EQ(usage_->directories().size(), 0U);
}

}  // namespace
}  // namespace vimbrel
