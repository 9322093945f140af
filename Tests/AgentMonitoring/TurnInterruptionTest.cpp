// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "AgentMonitoring/CoordinatorWorld.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "CapturedLog.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

/// One provider over a log that grows, and what it says of interrupted turns.
template <typename Provider>
std::vector<TurnInterruption> readInSteps(const std::string& file, const std::vector<std::string>& steps) {
  const TemporaryDirectory directory;
  const auto path = directory.file(file);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  VirtualTime time{*parseIso8601("2026-03-07T12:00:00Z")};
  std::vector<TurnInterruption> heard;
  std::shared_ptr<UsageMetricsProvider> provider;
  if constexpr (std::is_same_v<Provider, ClaudeUsageProvider>) {
    provider = std::make_shared<Provider>(std::vector{directory.path()}, time.mainQueue(), time,
                                          ModelRateCard::builtIn(), nullptr);
  } else {
    provider = std::make_shared<Provider>(directory.path(), time.mainQueue(), time, ModelRateCard::builtIn(),
                                          nullptr);
  }
  provider->onTurnInterrupted = [&](const TurnInterruption& each) { heard.push_back(each); };
  for (const auto& step : steps) {
    std::ofstream(path, std::ios::app) << step;
    (void)provider->pollLatestEvents();
  }
  return heard;
}

const auto at1159 = *parseIso8601("2026-03-07T11:59:00Z");

TEST(TurnInterruption, isReadFromClaudesLog) {
  const auto user = [](const std::string& content) {
    return R"({"type":"user","sessionId":"s1","cwd":"/p","timestamp":"2026-03-07T11:59:00Z","message":{"role":"user","content":)" +
           content + "}}\n";
  };
  const auto text = [&](const std::string& words) {
    return user(R"([{"type":"text","text":")" + words + R"("}])");
  };
  const std::string answer =
      R"({"type":"assistant","sessionId":"s1","message":{"id":"m","model":"x","usage":{"output_tokens":1}}})"
      "\n";
  const auto read = [](const std::vector<std::string>& steps) {
    return readInSteps<ClaudeUsageProvider>("projects/p/s1.jsonl", steps);
  };
  const std::vector expected{TurnInterruption{AgentType::claude, "s1", "/p", at1159}};
  EXPECT_EQ(read({answer, text("[Request interrupted by user]")}), expected);
  EXPECT_EQ(read({text("[Request interrupted by user for tool use]"), answer}), expected);
  EXPECT_EQ(read({user("\"[Request interrupted by user]\"")}), expected);
  EXPECT_TRUE(read({text("[Request interrupted by user]") + answer}).empty()) << "the agent went on";
  EXPECT_TRUE(read({text("what does [Request interrupted by user] mean?")}).empty());
  EXPECT_TRUE(read({R"({"type":"assistant","message":{"content":"[Request interrupted by user]"}})"
                    "\n"})
                  .empty());
  EXPECT_TRUE(read({user("[]"), user("7"), "[Request interrupted by user\n"}).empty());
}

TEST(TurnInterruption, isReadFromCodexRollouts) {
  const std::string meta =
      R"({"timestamp":"2026-03-07T11:50:00Z","type":"session_meta","payload":{"id":"own","cwd":"/p"}})"
      "\n";
  const auto event = [](const std::string& type) {
    return R"({"timestamp":"2026-03-07T11:59:00Z","type":"event_msg","payload":{"type":")" + type + "\"}}\n";
  };
  const auto read = [](const std::vector<std::string>& steps) {
    return readInSteps<CodexUsageProvider>("sessions/2026/03/07/rollout-1-own.jsonl", steps);
  };
  const std::vector expected{TurnInterruption{AgentType::codex, "own", "/p", at1159}};
  EXPECT_EQ(read({meta, event("task_started"), event("turn_aborted")}), expected);
  EXPECT_TRUE(read({meta + event("turn_aborted") + event("turn_started")}).empty());
  EXPECT_TRUE(read({meta + event("task_complete")}).empty());
}

TEST(TurnInterruption, setsTheSessionIdleWhoseTurnItWas) {
  const CapturedLog quiet;
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> sessions;  ///< ids and directories, all at work at 1000
    TurnInterruption interruption;
    std::string idle;  ///< the one that is idle afterwards
  };
  const auto claude = AgentType::claude;
  for (const auto& [name, sessions, interruption, idle] : {
           Case{"by its id", {{"a", "/p"}, {"b", "/p"}}, {claude, "b", "/p", at(1001)}, "b"},
           Case{"by its directory",
                {{"claude-7", "/p"}, {"claude-8", "/q"}},
                {claude, "b", "/p", at(1001)},
                "claude-7"},
           Case{"two in one directory",
                {{"claude-7", "/p"}, {"claude-8", "/p"}},
                {claude, "b", "/p", at(1001)},
                ""},
           Case{"nobody there", {{"claude-7", "/p"}}, {claude, "b", "/q", at(1001)}, ""},
           Case{"heard of since", {{"a", "/p"}}, {claude, "a", "/p", at(999)}, ""},
           Case{"another agent", {{"a", "/p"}}, {AgentType::codex, "a", "/p", at(1001)}, ""},
           Case{"in the future", {{"a", "/p"}}, {claude, "a", "/p", at(9000)}, ""},
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
    const bool none = sessions.size() == 1 && !idle.empty();
    EXPECT_EQ(world.coordinator.lastActiveAgentStoppedAt().has_value(), none) << name;
  }
  CoordinatorWorld alone;
  alone.coordinator.didReceiveHookEvent(event("a", claude, AgentState::working, 1000));
  alone.coordinator.turnInterrupted({claude, "a", std::nullopt, at(1001)});
  EXPECT_EQ(alone.coordinator.lastActiveAgentStoppedAt(), alone.time.now());
}

}  // namespace
}  // namespace vimbrel
