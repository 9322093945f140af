// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/AgentStateCoordinator.h"

#include <gmock/gmock.h>

#include "CapturedLog.h"
#include "CoordinatorWorld.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using enum AgentState;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(AgentStateCoordinator, writesOneLineOfTheLogWhateverASessionIsCalled) {
  CoordinatorWorld world;
  CapturedLog log;
  world.coordinator.didReceiveHookEvent(
      event("s\nerror agents: forged\x1b[2J", AgentType::claude, working, 0));
  world.coordinator.sweepStaleSessions(at(1000));
  const auto lines = log.take();
  EXPECT_FALSE(lines.empty());
  for (const auto& line : lines) {
    EXPECT_THAT(line, testing::Not(testing::AnyOf(HasSubstr("\n"), HasSubstr("\x1b")))) << line;
  }
}

TEST(AgentStateCoordinator, keepsOneSessionThroughItsEventsAndStampsTheStop) {
  CoordinatorWorld world;
  auto first = event("s1", AgentType::claude, working, 500);
  first.pid = 42;
  first.cwd = "/project";
  world.coordinator.didReceiveHookEvent(first);
  world.coordinator.didReceiveHookEvent(event("s1", AgentType::codex, idle, 600));

  AgentSession expected;
  expected.id = "s1";
  expected.agentType = AgentType::claude;  // the first event decides
  expected.state = idle;
  expected.startedAt = at(500);
  expected.lastEventAt = at(600);
  expected.pid = 42;
  expected.cwd = "/project";
  expected.hostAppName = "Terminal";
  expected.lastEventDescription = "State: Idle via Lifecycle Hook";
  expected.integrationType = IntegrationType::lifecycleHook;
  expected.confidence = 1.0;
  EXPECT_EQ(world.session("s1"), expected);
  EXPECT_EQ(world.recorder->stoppedAt, at(600));
}

TEST(AgentStateCoordinator, mergesScansAndTellsOfChangesOnly) {
  CoordinatorWorld world;
  const std::vector scan{match(AgentType::cursor, 7, false), match(AgentType::aider, 8, true)};
  world.coordinator.syncProcessSessions(scan);
  EXPECT_EQ(world.takeCalls(), 1);
  const auto found = world.session("proc-aider-8");
  EXPECT_EQ(found.state, working);
  EXPECT_EQ(found.confidence, 0.6);
  EXPECT_EQ(found.startedAt, at(1000));
  EXPECT_EQ(found.lastEventDescription, "CLI task running (PID 8)");
  EXPECT_EQ(world.session("proc-cursor-7").lastEventDescription, "Process detected (PID 7)");

  world.time.advance(5s);
  world.coordinator.syncProcessSessions(scan);
  EXPECT_EQ(world.takeCalls(), 0);
  EXPECT_EQ(world.session("proc-aider-8").lastEventAt, at(1000)) << "an unchanged state is no event";

  world.time.advance(1000s);
  world.coordinator.sweepStaleSessions(world.time.now());
  EXPECT_EQ(world.session("proc-aider-8").state, stale);
  world.coordinator.syncProcessSessions(scan);
  EXPECT_EQ(world.session("proc-aider-8").state, working);
  EXPECT_EQ(world.session("proc-aider-8").lastEventAt, at(2005));

  world.takeCalls();
  world.coordinator.syncProcessSessions({match(AgentType::cursor, 7, false)});
  EXPECT_EQ(world.takeCalls(), 1);
  EXPECT_FALSE(world.has("proc-aider-8"));

  // A hook session is never removed by a scan, one that has no pid neither.
  world.coordinator.didReceiveHookEvent(event("hook", AgentType::claude, idle, 900));
  world.coordinator.didReceiveHookEvent(event("pidless", AgentType::cursor, idle, 900));
  world.coordinator.syncProcessSessions({});
  EXPECT_TRUE(world.has("hook"));
  EXPECT_TRUE(world.has("pidless"));
  EXPECT_FALSE(world.has("proc-cursor-7"));
}

TEST(AgentStateCoordinator, letsAHookThatReportsWorkOverruleAnIdleScan) {
  CoordinatorWorld world;
  world.coordinator.syncProcessSessions({match(AgentType::codex, 5, true)});
  world.coordinator.didReceiveHookEvent(event("h", AgentType::codex, working, 900));
  world.takeCalls();
  world.coordinator.syncProcessSessions(
      {match(AgentType::codex, 5, false), match(AgentType::codex, 6, false)});
  EXPECT_EQ(world.session("proc-codex-5").state, working) << "the idle match is skipped, not applied";
  EXPECT_FALSE(world.has("proc-codex-6"));
  world.coordinator.registerProcessSession(AgentType::codex, 9, false, 0.3);
  EXPECT_FALSE(world.has("codex-9"));
  EXPECT_EQ(world.takeCalls(), 0);
  world.coordinator.registerProcessSession(AgentType::codex, 9, true, 0.3);
  EXPECT_EQ(world.session("codex-9").confidence, 0.3);
  EXPECT_EQ(world.session("codex-9").lastEventDescription, "Process active (PID 9)");

  world.coordinator.didReceiveHookEvent(event("h", AgentType::codex, idle, 950));
  world.coordinator.syncProcessSessions({match(AgentType::codex, 5, false)});
  EXPECT_EQ(world.session("proc-codex-5").state, idle);
  EXPECT_EQ(world.coordinator.lastActiveAgentStoppedAt(), at(1000));
}

TEST(AgentStateCoordinator, countsTheSilenceAfterAnEventOfTheFutureFromTheFirstSweep) {
  CoordinatorWorld world;
  world.coordinator.didReceiveHookEvent(event("ahead", AgentType::claude, working, 1e9));
  world.takeCalls();
  world.coordinator.sweepStaleSessions(at(1001));
  EXPECT_EQ(world.takeCalls(), 1);
  EXPECT_EQ(world.session("ahead").lastEventAt, at(1001));
  EXPECT_EQ(world.session("ahead").state, working);
  EXPECT_EQ(world.coordinator.lastActiveAgentStoppedAt(), std::nullopt);
  world.coordinator.sweepStaleSessions(at(1901));
  EXPECT_EQ(world.takeCalls(), 0);
  world.coordinator.sweepStaleSessions(at(1901.5));
  EXPECT_EQ(world.session("ahead").state, stale);
}

TEST(AgentStateCoordinator, forgetsEverythingWithANotice) {
  CoordinatorWorld world;
  world.coordinator.didReceiveHookEvent(event("a", AgentType::claude, working, 1));
  world.coordinator.didReceiveHookEvent(event("a", AgentType::claude, idle, 2));
  world.takeCalls();
  world.coordinator.clearAllSessions();
  EXPECT_EQ(world.takeCalls(), 1);
  EXPECT_THAT(world.recorder->latest.entries(), IsEmpty());
  EXPECT_EQ(world.recorder->stoppedAt, std::nullopt);
}

TEST(AgentStateCoordinator, callsOutWithoutItsLockAndHandsTheEventOnFirst) {
  CoordinatorWorld world;
  std::string order;
  world.coordinator.setOnHookEvent([&](const HookEvent& heard) {
    order += "event " + heard.sessionId + std::to_string(world.coordinator.sessions().size());
  });
  world.recorder->reenter = [&] {
    order += ", table " + std::to_string(world.coordinator.activeWorkingCount());
  };
  world.coordinator.didReceiveHookEvent(event("a", AgentType::claude, working, 1));
  EXPECT_EQ(order, "event a1, table 1");
  world.recorder.reset();  // Held weakly: nobody is told, nothing breaks.
  world.coordinator.didReceiveHookEvent(event("a", AgentType::claude, idle, 2));
  EXPECT_EQ(world.coordinator.activeWorkingCount(), 0U);
}

TEST(AgentStateCoordinator, dropsTheLongestSilentWhenFullAndWorkersLast) {
  CoordinatorWorld world({.sessions = 3, .textBytes = 4000});
  CapturedLog log;
  const auto send = [&](const char* id, AgentState state, std::size_t directoryBytes = 0) {
    // The peer's timestamps must not matter: the newest claims to be the oldest.
    static double time = 1e6;
    auto made = event(id, AgentType::claude, state, time -= 1);
    if (directoryBytes > 0) made.cwd = std::string(directoryBytes, 'd');
    world.coordinator.didReceiveHookEvent(made);
  };
  send("w1", working);
  send("i1", idle);
  send("i2", idle);
  send("i1", idle);  // now i2 is the longest silent
  send("w2", working);
  EXPECT_FALSE(world.has("i2"));
  EXPECT_EQ(world.coordinator.sessions().size(), 3U);
  send("w3", working);
  EXPECT_FALSE(world.has("i1"));
  send("i3", idle);
  EXPECT_FALSE(world.has("i3")) << "an idle newcomer does not displace a worker";
  send("w4", working);
  EXPECT_FALSE(world.has("w1"));
  EXPECT_EQ(world.coordinator.activeWorkingCount(), 3U);
  send("w4", working, 3950);
  EXPECT_TRUE(world.has("w4"));
  EXPECT_EQ(world.coordinator.sessions().size(), 1U) << "texts are bounded together";

  const auto droppedLines = [&] {
    auto lines = log.take();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("error"); });
    return lines;
  };
  EXPECT_THAT(droppedLines(), ElementsAre(HasSubstr("dropped 1 sessions")));
  world.time.advance(61s);
  send("w4", idle);
  EXPECT_THAT(droppedLines(), ElementsAre(HasSubstr("dropped 5 sessions"))) << "once a minute";
}

}  // namespace
}  // namespace vimbrel
