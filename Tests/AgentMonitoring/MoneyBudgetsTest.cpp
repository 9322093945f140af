// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "AgentMonitoring/MoneyBudgets/MoneyBudgetBook.h"
#include "AgentMonitoring/MoneyBudgets/MoneyBudgetWatch.h"
#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using nlohmann::json;

// A Wednesday in a week, and a month, that contain a change to summer time in Berlin.
const Instant now = *parseIso8601("2026-03-25T18:00:00+01:00");

class MoneyBudgets : public testing::Test {
 protected:
  MoneyBudgets() {
    ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", directory_.path().c_str(), 1);
    store_ = std::move(
        *UsageStore::open({.path = directory_.file("Vimbrel/usage_store.json")}, time_.mainQueue(), time_));
  }

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
  [[nodiscard]] BudgetStanding standing(const BudgetScope& scope, double amount = 100) const {
    const MoneyBudget budget{scope, amount};
    return budgetStandings(*store_, {&budget, 1}, now, *CalendarZone::named("Europe/Berlin"),
                           [](std::string_view session) { return "/home/me/" + std::string(session); })
        .front();
  }
  [[nodiscard]] std::string file() const {
    std::ifstream stream(path());
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  void edit(const std::string& text) const { std::ofstream(path()) << text; }
  [[nodiscard]] std::string path() const { return directory_.file("com.vimbrel.app/budgets.json"); }

  TemporaryDirectory directory_;
  VirtualTime time_{now};
  std::unique_ptr<UsageStore> store_;
  int turns_ = 0;
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
  const MoneyBudget budget{{BudgetPeriod::daily}, 10};
  const auto early =
      budgetStandings(*store_, {&budget, 1}, *parseIso8601("2026-03-25T00:01:00+01:00"),
                      *CalendarZone::named("Europe/Berlin"), [](std::string_view) { return std::nullopt; });
  EXPECT_DOUBLE_EQ(early.front().forecastUSD, 120) << "the pace of a tenth of the day";
}

TEST_F(MoneyBudgets, areKeptInAFileThatPeopleMayEdit) {
  MoneyBudgetBook book(path());
  ASSERT_TRUE(book.set({{BudgetPeriod::daily}, 5}));
  ASSERT_TRUE(book.set({{BudgetPeriod::weekly, AgentType::codex, "/p"}, 20}));
  ASSERT_TRUE(book.set({{BudgetPeriod::daily}, 6}));
  EXPECT_EQ(*MoneyBudgetBook(path()).budgets(), *book.budgets());
  ASSERT_EQ(book.budgets()->size(), 2U);
  EXPECT_EQ(book.budgets()->front().amountUSD, 6);
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_FALSE(*book.remove({BudgetPeriod::weekly}));
  EXPECT_TRUE(*book.remove({BudgetPeriod::weekly, AgentType::codex, "/p"}));

  for (const char* bad : {"{", "[]", R"({"budgets":{}})", R"({"budgets":[{"period":"daily"}]})",
                          R"({"budgets":[{"period":"hourly","amountUSD":1}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":0}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":1,"agent":"nobody"}]})",
                          R"({"budgets":[{"period":"daily","amountUSD":1,"project":"here"}]})"}) {
    edit(bad);
    EXPECT_FALSE(book.budgets()) << bad;
    EXPECT_FALSE(book.set({{BudgetPeriod::monthly}, 1})) << "what cannot be read is not written over";
    EXPECT_EQ(file(), bad);
  }
  edit(R"({"budgets":[{"period":"monthly","amountUSD":9,"project":"/p/"}]})");
  ASSERT_TRUE(book.budgets());
  EXPECT_EQ(book.budgets()->front().scope.project, "/p");
}

TEST_F(MoneyBudgets, announceEachThresholdOnceInAPeriodAlsoOverRestarts) {
  ASSERT_TRUE(MoneyBudgetBook(path()).set({{BudgetPeriod::daily}, 10}));
  const auto dueAt = [&](double spent, int day) {
    MoneyBudgetBook book(path());
    std::vector<int> percents;
    const BudgetStanding standing{.budget = book.budgets()->front(),
                                  .periodStart = instantFromUnixSeconds(day * 86400.0),
                                  .spentUSD = spent};
    for (const auto& notice : book.takeDueNotices({standing})) percents.push_back(notice.percent);
    return percents;
  };
  using Percents = std::vector<int>;
  EXPECT_EQ(dueAt(7.99, 1), Percents());
  EXPECT_EQ(dueAt(8, 1), Percents{80});
  EXPECT_EQ(dueAt(9, 1), Percents());
  EXPECT_EQ(dueAt(10, 1), Percents{100});
  EXPECT_EQ(dueAt(50, 1), Percents());
  EXPECT_EQ(dueAt(50, 2), Percents{100}) << "the lower threshold is passed over";
  EXPECT_EQ(dueAt(8, 3), Percents{80});
  ASSERT_TRUE(MoneyBudgetBook(path()).set({{BudgetPeriod::daily}, 20}));
  EXPECT_EQ(dueAt(16, 3), Percents{80}) << "another amount is another budget";
}

TEST_F(MoneyBudgets, countSessionsThatBeganSinceTheImport) {
  store_.reset();
  const auto book = std::make_shared<MoneyBudgetBook>(path());
  struct Case {
    const char* directory;
    double spent;
  };
  // A million tokens of output cost 75 dollars.
  const std::vector<Case> cases{{"/home/me/logged", 75}, {"/home/me/hooked", 150}, {"/home/me/opened", 0.5}};
  for (const auto& [directory, spent] : cases) {
    ASSERT_TRUE(book->set({{BudgetPeriod::daily, std::nullopt, directory}, 1}));
  }
  std::shared_ptr<UsageCoordinator> usage;
  const auto start = [&] {
    usage.reset();
    UsageCoordinator::Parts parts;
    parts.mainQueue = time_.mainQueue();
    parts.workQueue = time_.makeQueue("work", QueueHome::background);
    parts.openStore = [this] {
      return UsageStore::open({.path = directory_.file("Vimbrel/usage_store.json")}, time_.mainQueue(),
                              time_);
    };
    parts.providers = {
        std::make_shared<ClaudeUsageProvider>(std::vector{directory_.file("claude")}, time_.mainQueue(),
                                              time_, ModelRateCard::builtIn(), nullptr),
        std::make_shared<OpenCodeUsageProvider>(directory_.file("opencode.db"), time_.mainQueue(), time_,
                                                ModelRateCard::builtIn())};
    parts.indexPath = ImportIndex::defaultPath();
    usage = std::make_shared<UsageCoordinator>(std::move(parts), time_);
    usage->start();
    time_.advance(std::chrono::seconds(10));
  };
  const auto requireStandings = [&] {
    usage->withStore([&](UsageStore* store) {
      ASSERT_TRUE(store);
      const auto standings = standingsNow(*store, *book, time_.now(), usage->directories());
      ASSERT_TRUE(standings && standings->size() == cases.size());
      for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ((*standings)[i].budget.scope.project, cases[i].directory);
        EXPECT_DOUBLE_EQ((*standings)[i].spentUSD, cases[i].spent) << cases[i].directory;
      }
    });
    time_.runReady();
  };
  start();
  std::vector<std::string> said;
  auto watch = std::make_shared<MoneyBudgetWatch>(usage, book, time_, time_.mainQueue());
  watch->start([&](const MoneyBudgetNotice& notice) { said.push_back(notice.message()); });
  std::filesystem::create_directories(directory_.file("claude/projects/p"));
  std::ofstream(directory_.file("claude/projects/p/s.jsonl"))
      << R"({"type":"assistant","cwd":"/home/me/logged","sessionId":"s","timestamp":"2026-03-25T17:00:00Z",)"
      << R"("message":{"id":"msg_1","model":"claude-opus-5","usage":{"output_tokens":1000000}}})" << "\n";
  sqlite3* database = nullptr;
  sqlite3_open(directory_.file("opencode.db").c_str(), &database);
  const auto created = std::to_string(static_cast<std::int64_t>(unixSeconds(now)) * 1000);
  const auto sql =
      "CREATE TABLE message(id, session_id, time_created, time_updated, data);"
      "CREATE TABLE session(id, parent_id, directory);"
      "INSERT INTO session VALUES('o', NULL, '/home/me/opened'), ('p', NULL, '/home/me/hooked');"
      "INSERT INTO message VALUES('m', 'o', " +
      created + ", 0, '{\"cost\":0.5,\"tokens\":{\"output\":7}}');";
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  HookEvent hook;
  hook.agent = AgentType::gemini;
  hook.sessionId = "h";
  hook.timestamp = now;
  hook.cwd = "/home/me/hooked";
  hook.outputTokens = 2'000'000;
  hook.model = "claude-opus-5";
  usage->handleHookEvent(hook);
  time_.advance(std::chrono::minutes(3));
  requireStandings();
  EXPECT_EQ(said.size(), 2U) << "of those that are overspent";
  // Not every session has a log to be read again.
  usage->stop();
  time_.runReady();
  watch.reset();
  start();
  EXPECT_EQ(ImportIndex().projectOf("h"), "/home/me/hooked");
  EXPECT_EQ(ImportIndex().projectOf("p"), std::nullopt) << "a session without usage";
  requireStandings();
  usage->resetUsageData();
  time_.runReady();
  EXPECT_EQ(usage->directories().size(), 0U);
}

TEST_F(MoneyBudgets, areLookedAtWheneverUsageIsRecorded) {
  store_.reset();
  UsageCoordinator::Parts parts;
  parts.mainQueue = time_.mainQueue();
  parts.workQueue = time_.makeQueue("work", QueueHome::background);
  parts.openStore = [this] {
    return UsageStore::open({.path = directory_.file("Vimbrel/usage_store.json")}, time_.mainQueue(), time_);
  };
  const auto usage = std::make_shared<UsageCoordinator>(std::move(parts), time_);
  const auto book = std::make_shared<MoneyBudgetBook>(path());
  ASSERT_TRUE(book->set({{BudgetPeriod::monthly}, 3}));
  const auto watch = std::make_shared<MoneyBudgetWatch>(usage, book, time_, time_.mainQueue());
  std::vector<std::string> said;
  watch->start(
      [&](const MoneyBudgetNotice& notice) { said.push_back(notice.title() + ": " + notice.message()); });
  usage->start();
  for (int i = 1; i <= 4; ++i) {
    usage->handleUsageEvent(UsageEvent::make({.id = std::to_string(i),
                                              .agentType = AgentType::claude,
                                              .sessionId = "s",
                                              .turnId = std::to_string(i),
                                              .inputTokens = 1,
                                              .costEstimateUSD = 1.25,
                                              .timestamp = now,
                                              .source = "test"}));
    time_.advance(std::chrono::seconds(5));
  }
  ASSERT_EQ(said.size(), 2U);
  EXPECT_TRUE(
      said[0].starts_with("Budget 80 % spent: $2.50 of the monthly budget of $3.00 is spent; at this "
                          "pace it will be $"))
      << said[0];
  EXPECT_TRUE(said[1].starts_with("Budget spent: $3.75 of the monthly budget")) << said[1];
}

}  // namespace
}  // namespace vimbrel
