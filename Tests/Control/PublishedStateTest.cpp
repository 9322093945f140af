// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CapturedLog.h"
#include "Control/StatusMethods.h"
#include "Simulation/SimulatedApplication.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

std::shared_ptr<UsageCoordinator> usageWithoutStore(VirtualTime& time) {
  UsageCoordinator::Parts parts;
  parts.mainQueue = time.mainQueue();
  parts.workQueue = time.makeQueue("usage", QueueHome::background);
  parts.openStore = [] { return std::unexpected("not here"); };
  return std::make_shared<UsageCoordinator>(std::move(parts), time);
}

/// The application on virtual time, and how often it says that its published state changed.
struct PublishedState : testing::Test {
  CapturedLog quiet;
  SimulatedApplication world{SimulatedWorld{}, {}, usageWithoutStore};
  ControlledApplication application{.coordinator = world.app().coordinator(),
                                    .platform = world.app().platform(),
                                    .clock = world.time(),
                                    .version = "1",
                                    .deepHold = &world.app().deepHold(),
                                    .commandHolds = &world.app().commandHolds(),
                                    .presentation = &world.app().presentation(),
                                    .usage = world.app().usage().get()};
  int familyChanges = 0;
  int moodChanges = 0;
  Token families = world.app().presentation().agentFamilies().subscribe([this] { ++familyChanges; });
  Token mood = world.app().presentation().dominantVisualState().subscribe([this] { ++moodChanges; });

  void SetUp() override { world.start(); }
  void TearDown() override { EXPECT_FALSE(world.violation()) << *world.violation(); }
  json state() {
    world.settle();
    return statusDocument(application);
  }
  void quota(double used) {
    AccountQuotaBudget quota;
    quota.usedPercent = used;
    quota.percentageRemaining = 100 - used;
    world.app().usage()->setMeasuredBudget(AgentType::codex, {.quota = quota, .source = "test"});
  }
};

TEST_F(PublishedState, showsRowsMoodBudgetsAlertsAndTheHelper) {
  EXPECT_EQ(state()["agentFamilies"], json::array());
  EXPECT_EQ(state()["visualState"], "idle");
  EXPECT_EQ(state()["lowBudgetAlerts"], json::object());
  world.hook(AgentType::claude, AgentState::working, "a");
  world.run(1s);
  world.hook(AgentType::claude, AgentState::waiting, "b");
  quota(92);
  const auto now = state();
  ASSERT_EQ(now["agentFamilies"].size(), 2U) << "one at work, one with a recent budget";
  const auto& claude = now["agentFamilies"][0];
  EXPECT_EQ(claude["displayName"], "Claude Code");
  EXPECT_EQ(claude["aggregateState"], "working");
  EXPECT_EQ(claude["workingSessionCount"], 1);
  EXPECT_EQ(claude["waitingSessionCount"], 1);
  EXPECT_EQ(claude["sessions"], json({"b", "a"})) << "newest first; the sessions stand in \"sessions\"";
  EXPECT_EQ(claude["hosts"][0]["id"], "claude_Terminal");
  EXPECT_EQ(claude["summarySubtitle"], "2 sessions active");
  const auto& codex = now["agentFamilies"][1];
  EXPECT_EQ(codex["aggregateState"], "idle");
  EXPECT_EQ(codex["lowBudgetAlert"]["level"], "critical");
  EXPECT_EQ(codex["budgetSummaryLine"], now["budgets"][0]["idleSummaryLine"]);
  EXPECT_EQ(now["lowBudgetAlerts"]["codex"]["metricType"], "quota");
  EXPECT_EQ(now["budgets"][0]["quota"]["value"]["percentageRemaining"], 8.0);
  EXPECT_EQ(now["visualState"], "working");
  world.run(6s);
  EXPECT_EQ(state()["helperStatus"]["isDeepHoldActive"], true);
}

TEST_F(PublishedState, changesOnlyWhenSomethingDiffers) {
  world.hook(AgentType::claude, AgentState::working);
  world.settle();
  EXPECT_EQ(familyChanges, 1);
  EXPECT_EQ(moodChanges, 1);
  world.run(10min);
  EXPECT_EQ(familyChanges, 1) << "an evaluation a second rebuilds nothing";
  EXPECT_EQ(moodChanges, 1);
  quota(10);
  world.settle();
  EXPECT_EQ(familyChanges, 2);
  ASSERT_TRUE(world.app().settings().setMasterEnabled(false));
  world.settle();
  EXPECT_EQ(moodChanges, 2);
  EXPECT_EQ(state()["visualState"], "error");
  world.run(61min);
  EXPECT_EQ(state()["agentFamilies"].size(), 1U) << "the budget alone shows no row after an hour";
}

}  // namespace
}  // namespace vimbrel
