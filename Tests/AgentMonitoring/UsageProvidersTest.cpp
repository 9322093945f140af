// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"
#include "Support/CalendarDay.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

const Instant noon = *parseIso8601("2026-03-07T12:00:00Z");

class UsageProviders : public testing::Test {
 protected:
  void append(const std::string& name, const std::string& text) {
    const auto path = directory_.file(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::app | std::ios::binary) << text;
    // Each file that is written is newer than those before.
    const utimbuf times{++modified_, modified_};
    utime(path.c_str(), &times);
  }

  std::shared_ptr<ClaudeUsageProvider> claude() {
    return std::make_shared<ClaudeUsageProvider>(std::vector{directory_.path()}, time_.mainQueue(), time_,
                                                 ModelRateCard::builtIn(), nullptr);
  }
  std::shared_ptr<CodexUsageProvider> codex() {
    return std::make_shared<CodexUsageProvider>(directory_.path(), time_.mainQueue(), time_,
                                                ModelRateCard::builtIn(), nullptr);
  }

  TemporaryDirectory directory_;
  VirtualTime time_{noon};
  std::time_t modified_ = 1700000000;
};

std::string assistant(const std::string& id, const std::string& usage, const std::string& more = "") {
  return R"({"type":"assistant","sessionId":"s1","timestamp":"2026-03-07T11:59:00Z","message":{"id":")" + id +
         R"(","model":"claude-opus-5","usage":{)" + usage + "}}" + more + "}\n";
}

TEST_F(UsageProviders, claudeTurnsUsageLinesIntoEventsAndAReport) {
  append("projects/p/s1.jsonl",
         R"({"type":"user","message":{"usage":{"input_tokens":5}}})"
         "\n" +
             assistant("m1", R"("input_tokens":100,"output_tokens":20,"cache_read_input_tokens":5000,)"
                             R"("cache_creation_input_tokens":300)"));
  const auto provider = claude();
  const auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].deduplicationKey(), "claude_s1_m1");
  EXPECT_EQ(events[0].totalTokens, 5420);
  EXPECT_EQ(unixSeconds(events[0].timestamp), unixSeconds(noon) - 60);
  // 100 x 15 + 20 x 75 + 5000 x 1.5 + 300 x 18.75, for a million.
  EXPECT_NEAR(*events[0].costEstimateUSD, 0.016125, 1e-12);
  const auto report = provider->latestBudgetReport();
  ASSERT_TRUE(report && report->context.value() != nullptr);
  EXPECT_EQ(report->context.value()->tokensConsumed(), 5420);
  EXPECT_EQ(report->source, "claude");
  EXPECT_EQ(report->lastUpdated, noon);
  EXPECT_TRUE(report->isOldNews()) << "its file was written years ago";
}

TEST_F(UsageProviders, claudeLinesWithOddFields) {
  struct Case {
    const char* name;
    std::string line;
    std::string turn;
    std::string model;
    std::optional<double> cost;
  };
  const std::vector<Case> cases{
      {"no ids", R"({"type":"result","message":{"usage":{"input_tokens":1000000}}})", "log_turn_0",
       "claude-3-5-sonnet", 3.0},
      {"uuid",
       R"({"type":"assistant","uuid":"u","sessionId":"s","message":{"model":"x","usage":{"output_tokens":1}}})",
       "u", "x", std::nullopt},
      {"one-hour cache writes cost twice the input price",
       R"({"type":"assistant","uuid":"u","message":{"model":"claude-opus-5","usage":{"cache_creation_input_tokens":)"
       R"(1000000,"cache_creation":{"ephemeral_1h_input_tokens":400000}}}})",
       "u", "claude-opus-5", 0.6 * 18.75 + 0.4 * 30},
      {"wrong types are missing",
       R"({"type":"assistant","uuid":7,"sessionId":[],"message":{"id":{},"model":"claude-3-opus","usage":)"
       R"({"input_tokens":"9","output_tokens":2.5,"cache_read_input_tokens":1000000}}})",
       "log_turn_0", "claude-3-opus", 1.5},
  };
  for (const auto& test : cases) {
    const TemporaryDirectory directory;
    std::filesystem::create_directories(directory.file("projects"));
    std::ofstream(directory.file("projects/log.jsonl")) << test.line;  // complete, though without its newline
    ClaudeUsageProvider provider({directory.path()}, time_.mainQueue(), time_, ModelRateCard::builtIn(),
                                 nullptr);
    const auto events = provider.pollLatestEvents();
    ASSERT_EQ(events.size(), 1U) << test.name;
    EXPECT_EQ(events[0].turnId, test.turn) << test.name;
    EXPECT_EQ(events[0].modelId, test.model) << test.name;
    EXPECT_EQ(events[0].timestamp, noon) << test.name;
    ASSERT_EQ(events[0].costEstimateUSD.has_value(), test.cost.has_value()) << test.name;
    if (test.cost) {
      EXPECT_NEAR(*events[0].costEstimateUSD, *test.cost, 1e-9) << test.name;
    }
  }
}

TEST_F(UsageProviders, aLineIsTakenOnceHoweverItArrives) {
  const auto provider = claude();
  const auto line = assistant("m1", R"("input_tokens":10)");
  append("projects/p/s1.jsonl", "{\"type\":\"summary\"}\n\nnot json\n" + line.substr(0, 40));
  EXPECT_TRUE(provider->pollLatestEvents().empty());
  // Everything but the newline: the document is complete.
  append("projects/p/s1.jsonl", line.substr(40, line.size() - 41));
  EXPECT_EQ(provider->pollLatestEvents().size(), 1U);
  append("projects/p/s1.jsonl", "\n");
  EXPECT_TRUE(provider->pollLatestEvents().empty());
  append("projects/p/s1.jsonl", R"({"type":"assistant","message":{"usage":{"input_tokens":3}}})"
                                "\n");
  const auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].turnId, "s1_turn_3")
      << "lines are numbered from the start of the file, empty ones left out";
}

TEST_F(UsageProviders, aFileThatShrankIsReadAgain) {
  const auto provider = claude();
  append("projects/s1.jsonl",
         assistant("m1", R"("input_tokens":10)") + assistant("m2", R"("input_tokens":10)"));
  EXPECT_EQ(provider->pollLatestEvents().size(), 2U);
  std::filesystem::remove(directory_.file("projects/s1.jsonl"));
  append("projects/s1.jsonl", assistant("m3", R"("input_tokens":10)"));
  const auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].turnId, "m3");
}

TEST_F(UsageProviders, readsOnlyTheFiveNewestAndLeavesHiddenFilesAlone) {
  for (int i = 0; i < 6; ++i) {
    append("projects/p/" + std::to_string(i) + ".jsonl",
           assistant("m" + std::to_string(i), R"("input_tokens":1)"));
  }
  append("projects/.hidden/x.jsonl", assistant("h", R"("input_tokens":1)"));
  const auto events = claude()->pollLatestEvents();
  ASSERT_EQ(events.size(), 5U);
  EXPECT_EQ(events.front().turnId, "m5");
  EXPECT_EQ(events.back().turnId, "m1");
}

TEST_F(UsageProviders, datesWhatWasThereBeforeByItsOwnTime) {
  const auto at = [](const std::string& id, const char* time) {
    return R"({"type":"assistant","sessionId":"s","timestamp":")" + std::string(time) +
           R"(","message":{"id":")" + id + R"(","model":"claude-opus-5","usage":{"input_tokens":1}}})" + "\n";
  };
  const auto provider = claude();
  const auto read = [&] {
    std::vector<std::string> times;
    for (const auto& event : provider->pollLatestEvents()) {
      times.push_back(formatIso8601(event.timestamp, true));
    }
    return times;
  };
  using Times = std::vector<std::string>;
  append("projects/s.jsonl", "\n" + at("1", "2026-03-01T10:00:00.25Z") + at("2", "2026-03-01T10:00:00Z"));
  EXPECT_EQ(read(), (Times{"2026-03-01T10:00:00.250Z", "2026-03-01T10:00:00Z"}));
  append("projects/s.jsonl", at("3", "2026-03-07T11:59:59.5Z") + at("4", "2026-03-07T11:59:59Z"));
  EXPECT_EQ(read(), (Times{"2026-03-07T12:00:00Z", "2026-03-07T11:59:59Z"}));
  std::filesystem::remove(directory_.file("projects/s.jsonl"));
  append("projects/s.jsonl", at("1", "2026-03-01T10:00:00.25Z"));
  EXPECT_EQ(read(), Times{"2026-03-01T10:00:00.250Z"}) << "a file that was replaced is read from its start";
}

TEST_F(UsageProviders, survivesLinesOfManyMegabytes) {
  append("projects/s1.jsonl", assistant("m1", R"("input_tokens":1)") + R"({"type":"user","text":")" +
                                  std::string(20U << 20U, 'x') + "\"}\n" +
                                  assistant("m2", R"("input_tokens":1)"));
  EXPECT_EQ(claude()->pollLatestEvents().size(), 2U);
}

std::string dayPath() { return "sessions/2026/03/07/"; }

std::string tokenCount(int cumulative, int last, const std::string& more = "",
                       const char* time = "2026-03-07T11:00:00Z") {
  const auto counts = [](int input) {
    return R"({"input_tokens":)" + std::to_string(input) + R"(,"cached_input_tokens":)" +
           std::to_string(input / 2) + R"(,"output_tokens":10,"reasoning_output_tokens":4,"total_tokens":)" +
           std::to_string(input + 10) + "}";
  };
  return R"({"timestamp":")" + std::string(time) +
         R"(","type":"event_msg","payload":{"type":"token_count","info":)" + R"({"total_token_usage":)" +
         counts(cumulative) + R"(,"last_token_usage":)" + counts(last) +
         R"(,"model_context_window":200000})" + more + "}}\n";
}

TEST_F(UsageProviders, codexPricesEachTokenOnceAndReportsQuota) {
  append(
      dayPath() + "rollout-a.jsonl",
      R"({"type":"turn_context","payload":{"model":"gpt-4o"}})"
      "\n" +
          tokenCount(
              1000, 1000,
              R"(,"rate_limits":{"limit_id":"codex","primary":{"used_percent":37.5,"window_minutes":10080,)"
              R"("resets_at":1000},"plan_type":"pro"})") +
          tokenCount(1000, 1000) +
          tokenCount(3000, 2000, R"(,"rate_limits":{"limit_id":"other","primary":{"used_percent":99}})"));
  const auto provider = codex();
  const auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 2U) << "a record whose cumulative total did not move is no turn";
  EXPECT_EQ(events[0].turnId, "turn_idx_1");
  EXPECT_EQ(events[1].turnId, "turn_idx_3");
  EXPECT_EQ(events[0].inputTokens, 1000);
  EXPECT_EQ(events[0].cachedTokens, 500);
  // 500 at the input price, 500 cached, 10 output with the reasoning in it.
  EXPECT_NEAR(*events[0].costEstimateUSD, (500 * 2.5 + 500 * 1.25 + 10 * 10.0) / 1e6, 1e-12);
  EXPECT_EQ(events[1].quotaRemainingPercent, 62.5);
  EXPECT_EQ(unixSeconds(events[0].timestamp), unixSeconds(noon) - 3600) << "what was there before";
  const auto report = *provider->latestBudgetReport();
  ASSERT_NE(report.quota.value(), nullptr);
  EXPECT_EQ(report.quota.value()->percentageRemaining, 62.5);
  EXPECT_EQ(report.quota.value()->windowMinutes, 10080);
  EXPECT_EQ(unixSeconds(*report.quota.value()->resetsAt), 1000);
  EXPECT_EQ(report.context.value()->tokensConsumed(), 2010);

  append(dayPath() + "rollout-a.jsonl", tokenCount(3000, 2000) + tokenCount(3500, 500));
  const auto later = provider->pollLatestEvents();
  ASSERT_EQ(later.size(), 1U) << "the cumulative total is remembered between reads";
  EXPECT_EQ(later[0].modelId, "gpt-5.6-terra");
  EXPECT_EQ(later[0].timestamp, noon) << "appended while it was watched";
}

TEST_F(UsageProviders, codexLeavesAReplayedBeginningToItsParent) {
  const std::string parent = "11111111-0000-0000-0000-000000000000";
  const auto meta = [](const std::string& id, const std::string& more, const char* time) {
    return R"({"timestamp":")" + std::string(time) + R"(","type":"session_meta","payload":{"id":")" + id +
           "\"" + more + "}}\n";
  };
  const auto repeated = tokenCount(1000, 1000) + tokenCount(1500, 500);
  append(dayPath() + "rollout-t-" + parent + ".jsonl", meta(parent, "", "2026-03-07T10:59:00Z") + repeated);
  append(dayPath() + "rollout-fork.jsonl",
         meta("2", R"(,"forked_from_id":")" + parent + "\"", "2026-03-07T11:30:00Z") + repeated +
             tokenCount(1900, 400));
  append(dayPath() + "rollout-sub.jsonl",
         meta("3", R"(,"parent_thread_id":")" + parent + "\"", "2026-03-07T11:30:00Z") + tokenCount(70, 70));
  // The parent is gone, and the times of its records with it: they are written again within the first second.
  append(dayPath() + "rollout-orphan.jsonl",
         meta("4", R"(,"forked_from_id":"gone")", "2026-03-07T11:40:00Z") +
             tokenCount(800, 800, "", "2026-03-07T11:40:00.4Z") +
             tokenCount(900, 100, "", "2026-03-07T11:41:00Z"));
  std::map<std::string, std::vector<std::int64_t>> inputs;
  for (const auto& event : codex()->pollLatestEvents()) inputs[event.sessionId].push_back(*event.inputTokens);
  EXPECT_EQ(inputs["rollout-t-" + parent], (std::vector<std::int64_t>{1000, 500}));
  EXPECT_EQ(inputs["rollout-fork"], std::vector<std::int64_t>{400});
  EXPECT_EQ(inputs["rollout-sub"], std::vector<std::int64_t>{70});
  EXPECT_EQ(inputs["rollout-orphan"], std::vector<std::int64_t>{100});
}

TEST_F(UsageProviders, codexReadsOldDaysOnlyWhenTheRecentHaveNothing) {
  append("sessions/2026/03/05/rollout-old.jsonl", tokenCount(10, 10));
  EXPECT_EQ(codex()->pollLatestEvents().size(), 1U);
  append("sessions/2026/03/06/rollout-yesterday.jsonl", tokenCount(20, 20));
  const auto events = codex()->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].sessionId, "rollout-yesterday");
}

/// Tells of each change once, as a watched tree does.
struct ToldChanges final : TreeChanges {
  explicit ToldChanges(std::shared_ptr<std::vector<std::string>> paths) : paths(std::move(paths)) {}
  std::optional<std::vector<std::string>> take() override { return std::exchange(*paths, {}); }
  std::shared_ptr<std::vector<std::string>> paths;
};

TEST_F(UsageProviders, aChangeThatALookForAReportLearnsOfIsStillRead) {
  const auto told = std::make_shared<std::vector<std::string>>();
  const auto changes = [&](const std::string&) { return std::make_unique<ToldChanges>(told); };
  struct Case {
    std::shared_ptr<UsageMetricsProvider> provider;
    std::string name;
    std::string text;
  };
  for (const auto& [provider, name, text] :
       {Case{std::make_shared<ClaudeUsageProvider>(std::vector{directory_.path()}, time_.mainQueue(), time_,
                                                   ModelRateCard::builtIn(), changes),
             "projects/p/s1.jsonl", assistant("m1", R"("input_tokens":10)")},
        Case{std::make_shared<CodexUsageProvider>(directory_.path(), time_.mainQueue(), time_,
                                                  ModelRateCard::builtIn(), changes),
             dayPath() + "rollout-a.jsonl", tokenCount(10, 10)}}) {
    EXPECT_TRUE(provider->pollLatestEvents().empty()) << name;  // the walk of the start
    append(name, text);
    told->push_back(directory_.file(name));
    EXPECT_TRUE(provider->latestBudgetReport()) << name;
    EXPECT_EQ(provider->pollLatestEvents().size(), 1U) << name;
  }
}

class OpenCode : public UsageProviders {
 protected:
  OpenCode() : path_(directory_.file("opencode.db")) {
    execute(
        "PRAGMA journal_mode=WAL; CREATE TABLE message(id TEXT PRIMARY KEY, session_id TEXT, time_created "
        "INTEGER, "
        "time_updated INTEGER, data TEXT);");
  }
  ~OpenCode() override { sqlite3_close(writer_); }
  void execute(const std::string& sql) {
    if (writer_ == nullptr) sqlite3_open(path_.c_str(), &writer_);
    char* problem = nullptr;
    ASSERT_EQ(sqlite3_exec(writer_, sql.c_str(), nullptr, nullptr, &problem), SQLITE_OK) << problem;
  }
  void put(const std::string& id, std::int64_t milliseconds, const std::string& data) {
    execute("INSERT OR REPLACE INTO message VALUES('" + id + "','s'," + std::to_string(milliseconds) +
            ",0,'" + data + "');");
  }
  std::string path_;
  sqlite3* writer_ = nullptr;
};

TEST_F(OpenCode, readsMessagesWhileAnotherConnectionWrites) {
  OpenCodeUsageProvider provider(path_, time_.mainQueue(), time_, ModelRateCard::builtIn());
  put("m1", 5000, R"({"modelID":"gpt-4o","cost":0.12,"tokens":{"input":1,"output":2,"total":900}})");
  put("m2", 0, R"({"tokens":{"input":0,"output":0}})");
  put("m3", 6000, R"({"tokens":{"input":10,"cache":{"read":5,"write":1}},"cost":0.0})");
  put("m4", 7000, R"({"tokens":"none"})");
  put("m5", 7000, "tokens\"tokens\"");
  auto events = provider.pollLatestEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].turnId, "m3");
  EXPECT_EQ(events[0].modelId, "nemotron-3.5-lightning-free");
  EXPECT_EQ(events[0].costEstimateUSD, 0.0);
  EXPECT_EQ(events[0].totalTokens, 16);
  EXPECT_EQ(events[1].totalTokens, 900);
  EXPECT_EQ(events[1].costEstimateUSD, 0.12);
  EXPECT_EQ(unixSeconds(events[1].timestamp), 5);
  EXPECT_TRUE(provider.latestBudgetReport()->cost->isEstimated);
  EXPECT_TRUE(provider.pollLatestEvents().empty());

  // A writer in the middle of a transaction neither blocks the poll nor shows what it has not committed.
  execute("BEGIN IMMEDIATE;");
  put("m3", 6000, R"({"tokens":{"input":30}})");
  EXPECT_TRUE(provider.pollLatestEvents().empty());
  execute("COMMIT;");
  events = provider.pollLatestEvents();
  ASSERT_EQ(events.size(), 1U) << "a message whose row was rewritten with more tokens comes again";
  EXPECT_EQ(events[0].totalTokens, 30);
}

TEST_F(OpenCode, tellsOfATurnThatItsUserAborted) {
  execute(
      "CREATE TABLE session(id TEXT PRIMARY KEY, parent_id TEXT, directory TEXT);"
      "INSERT INTO session VALUES('s', NULL, '/work'), ('child', 's', '/work');");
  const auto aborted = [](const std::string& time, const std::string& name = "MessageAbortedError") {
    return R"({"role":"assistant","tokens":{"input":0,"output":0},"path":{"cwd":"/work"},"error":{"name":")" +
           name + R"(","data":{"message":"stopped"}},"time":{"created":1000)" + time + "}}";
  };
  const std::string answered = R"({"tokens":{"output":7},"text":"Aborted?","time":{"completed":9000}})";
  struct Row {
    const char* session;
    std::int64_t created;
    std::string data;
  };
  struct Case {
    const char* what;
    std::vector<Row> rows;
    bool isInterrupted;
  };
  const std::vector<Case> cases{
      {"aborted", {{"s", 1000, aborted(R"(,"completed":7500)")}}, true},
      {"gone on since", {{"s", 1000, aborted(R"(,"completed":7500)")}, {"s", 8000, answered}}, false},
      {"another session went on",
       {{"s", 1000, aborted(R"(,"completed":7500)")}, {"t", 8000, answered}},
       true},
      {"failed", {{"s", 1000, aborted(R"(,"completed":7500)", "APIError")}}, false},
      {"streaming still", {{"s", 1000, aborted("")}}, false},
      {"only a helper's", {{"child", 1000, aborted(R"(,"completed":7500)")}}, false},
      {"an answer about aborting", {{"s", 1000, answered}}, false},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    execute("DELETE FROM message;");
    for (std::size_t i = 0; i < each.rows.size(); ++i) {
      const auto& row = each.rows[i];
      execute("INSERT INTO message VALUES('m" + std::to_string(i) + "','" + row.session + "'," +
              std::to_string(row.created) + ",0,'" + row.data + "');");
    }
    OpenCodeUsageProvider provider(path_, time_.mainQueue(), time_, ModelRateCard::builtIn());
    std::vector<TurnInterruption> heard;
    provider.onTurnInterrupted = [&](const TurnInterruption& found) { heard.push_back(found); };
    provider.pollLatestEvents();
    const TurnInterruption expected{AgentType::opencode, "s", "/work", instantFromUnixSeconds(7.5)};
    EXPECT_EQ(heard, each.isInterrupted ? std::vector{expected} : std::vector<TurnInterruption>{});
  }
}

TEST_F(OpenCode, countsEachMessageAtItsHighestWhileAnotherProcessWrites) {
  sqlite3_close(std::exchange(writer_, nullptr));
  constexpr int messages = 200;
  const pid_t child = ::fork();
  if (child == 0) {
    // Each message's row is rewritten while it grows, as the agent does it.
    for (int i = 0; i < messages; ++i) {
      for (const int output : {1, i + 1}) {
        put("m" + std::to_string(i), 1000 * (i + 1),
            R"({"tokens":{"output":)" + std::to_string(output) + "}}");
      }
      if (i % 50 == 49) execute("PRAGMA wal_checkpoint(TRUNCATE);");
    }
    ::_exit(HasFailure() ? 1 : 0);
  }
  OpenCodeUsageProvider provider(path_, time_.mainQueue(), time_, ModelRateCard::builtIn());
  std::map<std::string, std::int64_t> highest;
  int status = 0;
  int polls = 0;
  for (bool isOver = false; !isOver; ++polls) {
    isOver = ::waitpid(child, &status, WNOHANG) == child;
    for (const auto& event : provider.pollLatestEvents()) {
      auto& known = highest[*event.turnId];
      known = std::max(known, *event.outputTokens);
    }
  }
  ASSERT_EQ(status, 0);
  EXPECT_GT(polls, 1);
  // A poll reads the latest messages; those that passed between two polls are found by the import.
  for (int i = messages - 10; i < messages; ++i) EXPECT_EQ(highest["m" + std::to_string(i)], i + 1);
  const OpenCodeDatabase database(path_);
  int found = 0;
  std::int64_t sum = 0;
  OpenCodeMessageParser parser(ModelRateCard::builtIn());
  EXPECT_TRUE(database.allMessages([&](const OpenCodeRow& row) {
    const auto usage = parser.parse(row, time_.now());
    ++found;
    if (usage) sum += *usage->event.outputTokens;
  }));
  EXPECT_EQ(found, messages);
  EXPECT_EQ(sum, messages * (messages + 1) / 2);
}

TEST_F(OpenCode, aDatabaseThatIsNoneYieldsNothing) {
  const auto path = directory_.file("garbage.db");
  std::ofstream(path) << std::string(5000, 'x');
  OpenCodeUsageProvider garbage(path, time_.mainQueue(), time_, ModelRateCard::builtIn());
  EXPECT_TRUE(garbage.pollLatestEvents().empty());
  OpenCodeUsageProvider missing(directory_.file("none.db"), time_.mainQueue(), time_,
                                ModelRateCard::builtIn());
  EXPECT_TRUE(missing.pollLatestEvents().empty());
  EXPECT_FALSE(std::filesystem::exists(directory_.file("none.db")));
}

TEST_F(UsageProviders, pollAtOnceThenAtTheirIntervalUntilStopped) {
  const auto provider = claude();
  int delivered = 0;
  provider->startMonitoring([&](const UsageEvent&) { ++delivered; });
  append("projects/s1.jsonl", assistant("m1", R"("input_tokens":1)"));
  time_.runReady();
  EXPECT_EQ(delivered, 1);
  append("projects/s1.jsonl", assistant("m2", R"("input_tokens":1)"));
  time_.advance(std::chrono::milliseconds{2900});
  EXPECT_EQ(delivered, 1);
  time_.advance(std::chrono::milliseconds{200});
  EXPECT_EQ(delivered, 2);
  provider->stopMonitoring();
  append("projects/s1.jsonl", assistant("m3", R"("input_tokens":1)"));
  time_.advance(std::chrono::seconds{10});
  EXPECT_EQ(delivered, 2);
}

}  // namespace
}  // namespace vimbrel
