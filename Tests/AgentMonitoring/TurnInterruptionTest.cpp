// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "AgentMonitoring/CoordinatorWorld.h"
#include "AgentMonitoring/UsageMachine.h"
#include "CapturedLog.h"

namespace vimbrel {
namespace {

struct InterruptedTurns : testing::Test, UsageMachine {
  /// What a provider says of interrupted turns in a log that grows by these steps.
  std::vector<TurnInterruption> readInSteps(UsageMetricsProvider& provider, const std::string& file,
                                            const std::vector<std::string>& steps) {
    std::filesystem::remove(directory_.file(file));
    std::vector<TurnInterruption> heard;
    provider.onTurnInterrupted = [&](const TurnInterruption& each) { heard.push_back(each); };
    for (const auto& step : steps) {
      append(file, step);
      (void)provider.pollLatestEvents();
    }
    return heard;
  }
};

const auto at1159 = *parseIso8601("2026-03-07T11:59:00Z");

TEST_F(InterruptedTurns, areReadFromClaudesLog) {
  const auto user = [](const std::string& content) {
    return R"({"type":"user","sessionId":"s1","cwd":"/p","timestamp":"2026-03-07T11:59:00Z","message":{"role":"user","content":)" +
           content + "}}\n";
  };
  const auto text = [&](const std::string& words) {
    return user(R"([{"type":"text","text":")" + words + R"("}])");
  };
  const auto answer = ClaudeAnswer{}.line();
  const std::pair<std::vector<std::string>, bool> cases[] = {
      {{answer, text("[Request interrupted by user]")}, true},
      {{text("[Request interrupted by user for tool use]"), answer}, true},
      {{user("\"[Request interrupted by user]\"")}, true},
      {{text("[Request interrupted by user]") + answer}, false},  // the agent went on
      {{text("what does [Request interrupted by user] mean?")}, false},
      {{"{\"type\":\"assistant\",\"message\":{\"content\":\"[Request interrupted by user]\"}}\n"}, false},
      {{user("[]"), user("7"), "[Request interrupted by user\n"}, false},
  };
  const TurnInterruption expected{AgentType::claude, "s1", "/p", at1159};
  for (const auto& [steps, isInterrupted] : cases) {
    EXPECT_EQ(readInSteps(*claude(), "claude/projects/p/s1.jsonl", steps),
              std::vector<TurnInterruption>(isInterrupted ? 1 : 0, expected))
        << steps.front();
  }
}

TEST_F(InterruptedTurns, areReadFromCodexRollouts) {
  const auto event = [](const std::string& type) {
    return R"({"timestamp":"2026-03-07T11:59:00Z","type":"event_msg","payload":{"type":")" + type + "\"}}\n";
  };
  const auto meta = codexMeta("own", R"(,"cwd":"/p")");
  const auto read = [&](const std::vector<std::string>& steps) {
    return readInSteps(*codex(), "codex/sessions/2026/03/07/rollout-1-own.jsonl", steps);
  };
  EXPECT_EQ(read({meta, event("task_started"), event("turn_aborted")}),
            (std::vector{TurnInterruption{AgentType::codex, "own", "/p", at1159}}));
  EXPECT_TRUE(read({meta + event("turn_aborted") + event("turn_started")}).empty());
  EXPECT_TRUE(read({meta + event("task_complete")}).empty());
}

TEST(TurnInterruption, setsTheSessionIdleWhoseTurnItWas) {
  const CapturedLog quiet;
  using Sessions = std::vector<std::pair<std::string, std::string>>;  // ids and directories
  struct Case {
    const char* name;
    Sessions sessions;  ///< all at work at 1000
    TurnInterruption interruption;
    std::string idle;  ///< the one that is idle afterwards
  };
  const auto claude = AgentType::claude;
  const Sessions one{{"a", "/p"}};
  for (const auto& [name, sessions, interruption, idle] : {
           Case{"by its id", {{"a", "/p"}, {"b", "/p"}}, {claude, "b", "/p", at(1001)}, "b"},
           Case{"by its directory", {{"c", "/p"}, {"d", "/q"}}, {claude, "b", "/p", at(1001)}, "c"},
           Case{"two in one directory", {{"c", "/p"}, {"d", "/p"}}, {claude, "b", "/p", at(1001)}, ""},
           Case{"nobody there", one, {claude, "b", "/q", at(1001)}, ""},
           Case{"heard of since", one, {claude, "a", "/p", at(999)}, ""},
           Case{"another agent", one, {AgentType::codex, "a", "/p", at(1001)}, ""},
           Case{"in the future", one, {claude, "a", "/p", at(9000)}, ""},
           Case{"the only one", one, {claude, "a", std::nullopt, at(1001)}, "a"},
       }) {
    CoordinatorWorld world;
    for (const auto& [id, directory] : sessions) {
      auto sent = event(id, claude, AgentState::working, 1000);
      sent.cwd = directory;
      world.coordinator.didReceiveHookEvent(sent);
    }
    world.takeCalls();
    world.coordinator.turnInterrupted(interruption);
    EXPECT_EQ(world.takeCalls(), idle.empty() ? 0 : 1) << name;
    for (const auto& [id, directory] : sessions) {
      EXPECT_EQ(world.session(id).state, id == idle ? AgentState::idle : AgentState::working) << name << id;
    }
    const bool isOver = sessions.size() == 1 && !idle.empty();
    EXPECT_EQ(world.coordinator.lastActiveAgentStoppedAt(),
              isOver ? std::optional(world.time.now()) : std::nullopt)
        << name;
  }
}

}  // namespace
}  // namespace vimbrel
