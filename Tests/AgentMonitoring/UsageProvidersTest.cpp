// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <numeric>
#include <utility>

#include "AgentMonitoring/UsageMachine.h"
#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"

namespace vimbrel {
namespace {

const Instant noon = *parseIso8601("2026-03-07T12:00:00Z");

struct UsageProviders : testing::Test, UsageMachine {};

TEST_F(UsageProviders, claudeTurnsUsageLinesIntoEventsAndAReport) {
  append("claude/projects/p/s1.jsonl",
         R"({"type":"user","message":{"usage":{"input_tokens":5}}})"
         "\n" +
             ClaudeAnswer{.usage = R"("input_tokens":100,"output_tokens":20,"cache_read_input_tokens":5000,)"
                                   R"("cache_creation_input_tokens":300)"}
                 .line());
  const auto provider = claude();
  const auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].deduplicationKey(), "claude_s1_m1");
  EXPECT_EQ(events[0].totalTokens, 5420);
  EXPECT_EQ(events[0].timestamp, noon - Seconds{60});
  // 100 x 15 + 20 x 75 + 5000 x 1.5 + 300 x 18.75, for a million.
  EXPECT_NEAR(*events[0].costEstimateUSD, 0.016125, 1e-12);
  const auto report = provider->latestBudgetReport();
  ASSERT_TRUE(report && report->context.value() != nullptr);
  EXPECT_EQ(report->context.value()->tokensConsumed(), 5420);
  EXPECT_EQ(report->lastUpdated, noon);
  EXPECT_TRUE(report->isOldNews()) << "its file was written years ago";
}

TEST_F(UsageProviders, claudeLinesWithOddFields) {
  struct Case {
    const char* line;
    const char* turn;
    const char* model;
    std::optional<double> cost;
  };
  const Case cases[] = {
      {R"({"type":"result","message":{"usage":{"input_tokens":1000000}}})", "log_turn_0", "claude-3-5-sonnet",
       3.0},
      {R"({"type":"assistant","uuid":"u","sessionId":"s","message":{"model":"x","usage":{"output_tokens":1}}})",
       "u", "x", std::nullopt},
      // Cache writes for an hour cost twice the input's price.
      {R"({"type":"assistant","uuid":"u","message":{"model":"claude-opus-5","usage":{"cache_creation_input_tokens":)"
       R"(1000000,"cache_creation":{"ephemeral_1h_input_tokens":400000}}}})",
       "u", "claude-opus-5", 0.6 * 18.75 + 0.4 * 30},
      // What has the wrong type is missing.
      {R"({"type":"assistant","uuid":7,"sessionId":[],"message":{"id":{},"model":"claude-3-opus","usage":)"
       R"({"input_tokens":"9","output_tokens":2.5,"cache_read_input_tokens":1000000}}})",
       "log_turn_0", "claude-3-opus", 1.5},
  };
  for (const auto& [line, turn, model, cost] : cases) {
    replace("claude/projects/log.jsonl", line);  // complete, though without its newline
    const auto events = claude()->pollLatestEvents();
    ASSERT_EQ(events.size(), 1U) << line;
    EXPECT_EQ(events[0].turnId, turn) << line;
    EXPECT_EQ(events[0].modelId, model) << line;
    EXPECT_EQ(events[0].timestamp, noon) << line;
    ASSERT_EQ(events[0].costEstimateUSD.has_value(), cost.has_value()) << line;
    EXPECT_NEAR(events[0].costEstimateUSD.value_or(0), cost.value_or(0), 1e-9) << line;
  }
}

TEST_F(UsageProviders, aLineIsTakenOnceHoweverItArrives) {
  const auto provider = claude();
  const auto line = ClaudeAnswer{}.line();
  const auto read = [&](const std::string& appended) {
    append("claude/projects/p/s1.jsonl", appended);
    std::vector<std::string> turns;
    for (const auto& event : provider->pollLatestEvents()) turns.push_back(*event.turnId);
    return turns;
  };
  using Turns = std::vector<std::string>;
  EXPECT_EQ(read("{\"type\":\"summary\"}\n\nnot json\n" + line.substr(0, 40)), Turns{});
  EXPECT_EQ(read(line.substr(40, line.size() - 41)), Turns{"m1"}) << "all but the newline is complete";
  EXPECT_EQ(read("\n"), Turns{});
  // Lines are numbered from the start of the file, empty ones left out.
  EXPECT_EQ(read("{\"type\":\"assistant\",\"message\":{\"usage\":{\"input_tokens\":3}}}\n"),
            Turns{"s1_turn_3"});
}

TEST_F(UsageProviders, readsOnlyTheFiveNewestAndLeavesHiddenFilesAlone) {
  for (int i = 0; i < 6; ++i) {
    const auto number = std::to_string(i);
    append("claude/projects/p/" + number + ".jsonl", ClaudeAnswer{.id = "m" + number}.line());
  }
  append("claude/projects/.hidden/x.jsonl", ClaudeAnswer{.id = "h"}.line());
  const auto events = claude()->pollLatestEvents();
  ASSERT_EQ(events.size(), 5U);
  EXPECT_EQ(events.front().turnId, "m5");
  EXPECT_EQ(events.back().turnId, "m1");
}

TEST_F(UsageProviders, datesWhatWasThereBeforeByItsOwnTime) {
  const auto provider = claude();
  const auto read = [&] {
    std::vector<std::string> times;
    for (const auto& event : provider->pollLatestEvents()) {
      times.push_back(formatIso8601(event.timestamp, true));
    }
    return times;
  };
  const auto at = [](const char* time) { return ClaudeAnswer{.time = time}.line(); };
  using Times = std::vector<std::string>;
  append("claude/projects/s.jsonl", "\n" + at("2026-03-01T10:00:00.25Z") + at("2026-03-01T10:00:00Z"));
  EXPECT_EQ(read(), (Times{"2026-03-01T10:00:00.250Z", "2026-03-01T10:00:00Z"}));
  append("claude/projects/s.jsonl", at("2026-03-07T11:59:59.5Z") + at("2026-03-07T11:59:59Z"));
  EXPECT_EQ(read(), (Times{"2026-03-07T12:00:00Z", "2026-03-07T11:59:59Z"}));
  replace("claude/projects/s.jsonl", at("2026-03-01T10:00:00.25Z"));
  EXPECT_EQ(read(), Times{"2026-03-01T10:00:00.250Z"}) << "a file that was replaced is read from its start";
}

TEST_F(UsageProviders, survivesLinesOfManyMegabytes) {
  append("claude/projects/s1.jsonl", ClaudeAnswer{.id = "m1"}.line() + R"({"type":"user","text":")" +
                                         std::string(20U << 20U, 'x') + "\"}\n" +
                                         ClaudeAnswer{.id = "m2"}.line());
  EXPECT_EQ(claude()->pollLatestEvents().size(), 2U);
}

const std::string today = "codex/sessions/2026/03/07/";

TEST_F(UsageProviders, codexPricesEachTokenOnceAndReportsQuota) {
  const std::string own =
      R"(,"rate_limits":{"limit_id":"codex","primary":{"used_percent":37.5,"window_minutes":10080,)"
      R"("resets_at":1000},"plan_type":"pro"})";
  const std::string others = R"(,"rate_limits":{"limit_id":"other","primary":{"used_percent":99}})";
  append(today + "rollout-a.jsonl", "{\"type\":\"turn_context\",\"payload\":{\"model\":\"gpt-4o\"}}\n" +
                                        CodexCount{.cumulative = 1000, .last = 1000, .more = own}.line() +
                                        CodexCount{1000, 1000}.line() +
                                        CodexCount{.cumulative = 3000, .last = 2000, .more = others}.line());
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
  EXPECT_EQ(events[0].timestamp, noon - Seconds{3600}) << "what was there before";
  const auto report = *provider->latestBudgetReport();
  ASSERT_NE(report.quota.value(), nullptr);
  EXPECT_EQ(report.quota.value()->percentageRemaining, 62.5);
  EXPECT_EQ(report.quota.value()->windowMinutes, 10080);
  EXPECT_EQ(report.quota.value()->resetsAt, instantFromUnixSeconds(1000));
  EXPECT_EQ(report.context.value()->tokensConsumed(), 2010);

  append(today + "rollout-a.jsonl", CodexCount{3000, 2000}.line() + CodexCount{3500, 500}.line());
  const auto later = provider->pollLatestEvents();
  ASSERT_EQ(later.size(), 1U) << "the cumulative total is remembered between reads";
  EXPECT_EQ(later[0].modelId, "gpt-5.6-terra");
  EXPECT_EQ(later[0].timestamp, noon) << "appended while it was watched";
}

TEST_F(UsageProviders, codexLeavesAReplayedBeginningToItsParent) {
  const std::string parent = "11111111-0000-0000-0000-000000000000";
  const auto repeated = CodexCount{1000, 1000}.line() + CodexCount{1500, 500}.line();
  append(today + "rollout-t-" + parent + ".jsonl", codexMeta(parent) + repeated);
  append(today + "rollout-fork.jsonl",
         codexMeta("2", R"(,"forked_from_id":")" + parent + "\"") + repeated + CodexCount{1900, 400}.line());
  append(today + "rollout-sub.jsonl",
         codexMeta("3", R"(,"parent_thread_id":")" + parent + "\"") + CodexCount{70, 70}.line());
  // The parent is gone, and the times of its records with it: they are written again within the first second.
  append(today + "rollout-orphan.jsonl",
         codexMeta("4", R"(,"forked_from_id":"gone")", "2026-03-07T11:40:00Z") +
             CodexCount{800, 800, "2026-03-07T11:40:00.4Z"}.line() +
             CodexCount{900, 100, "2026-03-07T11:41:00Z"}.line());
  std::map<std::string, std::vector<std::int64_t>> inputs;
  for (const auto& event : codex()->pollLatestEvents()) inputs[event.sessionId].push_back(*event.inputTokens);
  EXPECT_EQ(inputs, (std::map<std::string, std::vector<std::int64_t>>{{"rollout-t-" + parent, {1000, 500}},
                                                                      {"rollout-fork", {400}},
                                                                      {"rollout-sub", {70}},
                                                                      {"rollout-orphan", {100}}}));
}

TEST_F(UsageProviders, codexReadsOldDaysOnlyWhenTheRecentHaveNothing) {
  append("codex/sessions/2026/03/05/rollout-old.jsonl", CodexCount{10, 10}.line());
  EXPECT_EQ(codex()->pollLatestEvents().size(), 1U);
  append("codex/sessions/2026/03/06/rollout-yesterday.jsonl", CodexCount{20, 20}.line());
  const auto events = codex()->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].sessionId, "rollout-yesterday");
}

/// Tells of each change once, as a watched tree does.
struct ToldChanges final : TreeChanges {
  explicit ToldChanges(std::vector<std::string>& paths) : paths(paths) {}
  std::optional<std::vector<std::string>> take() override { return std::exchange(paths, {}); }
  std::vector<std::string>& paths;
};

TEST_F(UsageProviders, aChangeThatALookForAReportLearnsOfIsStillRead) {
  std::vector<std::string> told;
  const auto changes = [&](const std::string&) { return std::make_unique<ToldChanges>(told); };
  const auto requireRead = [&](UsageMetricsProvider& provider, const std::string& name,
                               const std::string& text) {
    EXPECT_TRUE(provider.pollLatestEvents().empty()) << name;  // the walk of the start
    append(name, text);
    told.push_back(directory_.file(name));
    EXPECT_TRUE(provider.latestBudgetReport()) << name;
    EXPECT_EQ(provider.pollLatestEvents().size(), 1U) << name;
  };
  requireRead(*claude(changes), "claude/projects/p/s1.jsonl", ClaudeAnswer{}.line());
  requireRead(*codex(changes), today + "rollout-a.jsonl", CodexCount{10, 10}.line());
}

TEST_F(UsageProviders, pollAtOnceThenAtTheirIntervalUntilStopped) {
  const auto provider = claude();
  int delivered = 0;
  provider->startMonitoring([&](const UsageEvent&) { ++delivered; });
  const auto answer = [&] { append("claude/projects/s1.jsonl", ClaudeAnswer{}.line()); };
  answer();
  time_.runReady();
  EXPECT_EQ(delivered, 1);
  answer();
  time_.advance(std::chrono::seconds{4});
  EXPECT_EQ(delivered, 2);
  provider->stopMonitoring();
  answer();
  time_.advance(std::chrono::seconds{10});
  EXPECT_EQ(delivered, 2);
}

struct OpenCode : UsageProviders {
  OpenCodeWriter writer{directory_.file("opencode/opencode.db")};
};

TEST_F(OpenCode, readsMessagesWhileAnotherConnectionWrites) {
  const auto provider = openCode();
  writer.put("m1", 5000, R"({"modelID":"gpt-4o","cost":0.12,"tokens":{"input":1,"output":2,"total":900}})");
  writer.put("m2", 0, R"({"tokens":{"input":0,"output":0}})");
  writer.put("m3", 6000, R"({"tokens":{"input":10,"cache":{"read":5,"write":1}},"cost":0.0})");
  writer.put("m4", 7000, R"({"tokens":"none"})");
  writer.put("m5", 7000, "tokens\"tokens\"");
  auto events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].turnId, "m3");
  EXPECT_EQ(events[0].modelId, "nemotron-3.5-lightning-free");
  EXPECT_EQ(events[0].costEstimateUSD, 0.0);
  EXPECT_EQ(events[0].totalTokens, 16);
  EXPECT_EQ(events[1].totalTokens, 900);
  EXPECT_EQ(events[1].costEstimateUSD, 0.12);
  EXPECT_EQ(unixSeconds(events[1].timestamp), 5);
  EXPECT_TRUE(provider->latestBudgetReport()->cost->isEstimated);
  EXPECT_TRUE(provider->pollLatestEvents().empty());

  // A writer in the middle of a transaction neither blocks the poll nor shows what it has not committed.
  writer.execute("BEGIN IMMEDIATE;");
  writer.put("m3", 6000, R"({"tokens":{"input":30}})");
  EXPECT_TRUE(provider->pollLatestEvents().empty());
  writer.execute("COMMIT;");
  events = provider->pollLatestEvents();
  ASSERT_EQ(events.size(), 1U) << "a message whose row was rewritten with more tokens comes again";
  EXPECT_EQ(events[0].totalTokens, 30);
}

TEST_F(OpenCode, tellsOfATurnThatItsUserAborted) {
  writer.execute("INSERT INTO session VALUES('s', NULL, '/work'), ('child', 's', '/work');");
  const auto failed = [](const std::string& time, const std::string& name = "MessageAbortedError") {
    return R"({"role":"assistant","tokens":{"input":0,"output":0},"path":{"cwd":"/work"},"error":{"name":")" +
           name + R"(","data":{"message":"stopped"}},"time":{"created":1000)" + time + "}}";
  };
  const auto aborted = failed(R"(,"completed":7500)");
  const std::string answered = R"({"tokens":{"output":7},"text":"Aborted?","time":{"completed":9000}})";
  struct Case {
    const char* what;
    const char* session;
    std::string message;
    const char* answeredIn;  ///< the session that goes on afterwards
    bool isInterrupted;
  };
  for (const auto& [what, session, message, answeredIn, isInterrupted] : {
           Case{"aborted", "s", aborted, nullptr, true},
           Case{"gone on since", "s", aborted, "s", false},
           Case{"another session went on", "s", aborted, "t", true},
           Case{"failed", "s", failed(R"(,"completed":7500)", "APIError"), nullptr, false},
           Case{"streaming still", "s", failed(""), nullptr, false},
           Case{"only a helper's", "child", aborted, nullptr, false},
           Case{"an answer about aborting", "s", answered, nullptr, false},
       }) {
    writer.execute("DELETE FROM message;");
    writer.put("m0", 1000, message, session);
    if (answeredIn != nullptr) writer.put("m1", 8000, answered, answeredIn);
    const auto provider = openCode();
    std::vector<TurnInterruption> heard;
    provider->onTurnInterrupted = [&](const TurnInterruption& found) { heard.push_back(found); };
    provider->pollLatestEvents();
    const TurnInterruption expected{AgentType::opencode, "s", "/work", instantFromUnixSeconds(7.5)};
    EXPECT_EQ(heard, std::vector<TurnInterruption>(isInterrupted ? 1 : 0, expected)) << what;
  }
}

TEST_F(OpenCode, countsEachMessageAtItsHighestWhileAnotherProcessWrites) {
  writer.close();
  constexpr int messages = 200;
  const pid_t child = ::fork();
  if (child == 0) {
    // Each message's row is rewritten while it grows, as the agent does it.
    for (int i = 0; i < messages; ++i) {
      for (const int output : {1, i + 1}) {
        writer.put("m" + std::to_string(i), 1000 * (i + 1),
                   R"({"tokens":{"output":)" + std::to_string(output) + "}}");
      }
      if (i % 50 == 49) writer.execute("PRAGMA wal_checkpoint(TRUNCATE);");
    }
    ::_exit(HasFailure() ? 1 : 0);
  }
  const auto provider = openCode();
  std::map<std::string, std::int64_t> highest;
  int status = 0;
  for (bool isOver = false; !isOver;) {
    isOver = ::waitpid(child, &status, WNOHANG) == child;
    for (const auto& event : provider->pollLatestEvents()) {
      auto& known = highest[*event.turnId];
      known = std::max(known, *event.outputTokens);
    }
  }
  ASSERT_EQ(status, 0);
  // A poll reads the latest messages; those that passed between two polls are found by the import.
  for (int i = messages - 10; i < messages; ++i) EXPECT_EQ(highest["m" + std::to_string(i)], i + 1);
  std::vector<std::int64_t> imported;
  OpenCodeMessageParser parser(ModelRateCard::builtIn());
  EXPECT_TRUE(
      OpenCodeDatabase(directory_.file("opencode/opencode.db")).allMessages([&](const OpenCodeRow& row) {
        const auto usage = parser.parse(row, time_.now());
        imported.push_back(usage ? *usage->event.outputTokens : 0);
      }));
  EXPECT_EQ(imported.size(), messages);
  EXPECT_EQ(std::accumulate(imported.begin(), imported.end(), std::int64_t{0}),
            messages * (messages + 1) / 2);
}

TEST_F(OpenCode, aDatabaseThatIsNoneYieldsNothing) {
  append("opencode/garbage.db", std::string(5000, 'x'));
  EXPECT_TRUE(openCode("opencode/garbage.db")->pollLatestEvents().empty());
  EXPECT_TRUE(openCode("opencode/none.db")->pollLatestEvents().empty());
  EXPECT_FALSE(std::filesystem::exists(directory_.file("opencode/none.db")));
}

}  // namespace
}  // namespace vimbrel
