// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <fstream>

#include "CapturedLog.h"
#include "Platform/Simulated/SimulatedWorldFile.h"
#include "Simulation/SimulatedApplication.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

struct Scenario : testing::Test {
  CapturedLog quiet;
  SimulatedApplication application;

  void battery(std::int64_t percent, bool isOnAC) {
    application.machine().change([&](SimulatedWorld& world) {
      world.power = PowerSourceSnapshot{percent, isOnAC, isOnAC, false, std::nullopt};
    });
    application.settle();
  }
  void TearDown() override { EXPECT_FALSE(application.violation()) << *application.violation(); }
};

TEST_F(Scenario, aHookHoldsTheMachineAndTheDelayGivesItBack) {
  application.start();
  EXPECT_FALSE(application.isHeld());
  application.hook(AgentType::claude, AgentState::working);
  application.settle();
  ASSERT_TRUE(application.isHeld());
  EXPECT_EQ(application.machine().heldAssertions()[0].name, "Vimbrel: Claude Code working");
  application.run(10min);
  EXPECT_TRUE(application.isHeld());

  application.hook(AgentType::claude, AgentState::completed);
  application.run(29s);
  EXPECT_TRUE(application.isHeld());
  application.run(1s);
  EXPECT_FALSE(application.isHeld());
  EXPECT_EQ(application.machine().grantedCount(), 1U) << "one assertion for the whole episode";
}

TEST_F(Scenario, anAgentThatFallsSilentIsLetGoAfterFifteenMinutesAndTheDelay) {
  application.start();
  application.hook(AgentType::claude, AgentState::working);
  application.run(15min + 1s + 29s);
  EXPECT_TRUE(application.isHeld());
  application.run(2s);
  EXPECT_FALSE(application.isHeld());
}

TEST_F(Scenario, aProcessIsEnoughForAgentsWithoutHooks) {
  application.start();
  application.machine().change(
      [](SimulatedWorld& world) { world.processes = {{812, "/usr/local/bin/codex exec fix tests"}}; });
  application.run(1s);
  EXPECT_TRUE(application.isHeld());
  application.run(1h);
  EXPECT_TRUE(application.isHeld());
  application.machine().change([](SimulatedWorld& world) { world.processes.clear(); });
  application.run(32s);
  EXPECT_FALSE(application.isHeld());
}

TEST_F(Scenario, aDrainingBatteryCutsProtectionUntilItHasRecovered) {
  application.start();
  application.hook(AgentType::claude, AgentState::working);
  std::string story;
  for (const int percent : {17, 16, 15, 14, 16, 17, 18, 15}) {
    battery(percent, false);
    story += application.isHeld() ? 'H' : '-';
  }
  battery(15, true);
  story += application.isHeld() ? 'H' : '-';
  EXPECT_EQ(story, "HH----H-H");
}

TEST_F(Scenario, theLidIsCoveredExactlyWhileItsHoldLastsAndNeverInAnEmptyBattery) {
  application.start();
  const auto cover = [&] {
    application.run(7s);  // The helper's status is read every few seconds.
    return application.app().deepHold().report().cover;
  };
  ASSERT_TRUE(application.app().settings().setDeepLidProtectionEnabled(true));
  EXPECT_EQ(cover(), LidCover::notNeeded);
  application.hook(AgentType::claude, AgentState::working);
  EXPECT_EQ(cover(), LidCover::covered);
  battery(5, false);
  EXPECT_EQ(cover(), LidCover::notNeeded);
  battery(90, true);
  EXPECT_EQ(cover(), LidCover::covered);
  ASSERT_TRUE(application.app().settings().setDeepLidProtectionEnabled(false));
  application.run(70s);
  EXPECT_TRUE(application.isHeld());
  EXPECT_EQ(cover(), LidCover::off) << "the lease ran out although the hold goes on";
  auto command = application.app().commandHolds().add({"make", application.time().now() + Seconds{60}, true});
  EXPECT_EQ(cover(), LidCover::covered) << "a command may ask for the lid whatever the setting says";
  application.run(120s);
  EXPECT_EQ(cover(), LidCover::off);
}

TEST_F(Scenario, aPauseEndsByItself) {
  application.start();
  application.hook(AgentType::claude, AgentState::waiting);
  ASSERT_TRUE(application.app().settings().pause(10min));
  application.settle();
  EXPECT_FALSE(application.isHeld());
  application.run(10min + 1s);
  EXPECT_TRUE(application.isHeld());
}

TEST_F(Scenario, anAgentThatIsLeftWaitingIsLetGoOnceAndForAll) {
  ASSERT_TRUE(application.app().settings().setValue("waitingGraceSeconds", 300.0));
  application.leaveOutWork();
  application.start();
  application.hook(AgentType::claude, AgentState::waiting);
  application.run(300s);
  EXPECT_TRUE(application.isHeld());
  application.run(29s);
  EXPECT_TRUE(application.isHeld()) << "the release delay follows";
  application.run(3s);
  EXPECT_FALSE(application.isHeld());
  for (int minute = 0; minute < 40; ++minute) {
    application.run(1min);
    EXPECT_FALSE(application.isHeld()) << "not even when the session falls silent for good";
  }
  application.hook(AgentType::claude, AgentState::working);
  application.settle();
  EXPECT_TRUE(application.isHeld());
}

TEST_F(Scenario, aHoldWithoutFreshEventsEndsAtItsLongest) {
  ASSERT_TRUE(application.app().settings().setValue("maximumHoldSeconds", 3600.0));
  application.leaveOutWork();
  application.start();
  application.machine().change(
      [](SimulatedWorld& world) { world.processes = {{812, "/usr/local/bin/codex exec fix tests"}}; });
  application.run(59min);
  EXPECT_TRUE(application.isHeld());
  application.run(2min);
  EXPECT_FALSE(application.isHeld()) << "a process alone is no sign of life";
  for (int minute = 0; minute < 60; ++minute) {
    application.run(1min);
    EXPECT_FALSE(application.isHeld());
  }
  application.hook(AgentType::claude, AgentState::working);
  application.run(1s);
  EXPECT_TRUE(application.isHeld()) << "an event is";
  for (int minute = 0; minute < 150; ++minute) {
    application.hook(AgentType::claude, AgentState::working);
    application.run(1min);
    EXPECT_TRUE(application.isHeld()) << "and one that keeps coming is never interrupted";
  }
  application.machine().change([](SimulatedWorld& world) { world.processes.clear(); });
  application.hook(AgentType::claude, AgentState::completed);
  application.run(1min);
  EXPECT_FALSE(application.isHeld());
  ASSERT_TRUE(application.app().settings().setManualHoldEnabled(true));
  application.run(61min);
  EXPECT_FALSE(application.isHeld()) << "a forgotten manual hold ends too";
  ASSERT_TRUE(application.app().settings().setManualHoldEnabled(false));
  application.run(1s);
  ASSERT_TRUE(application.app().settings().setManualHoldEnabled(true));
  application.run(1s);
  EXPECT_TRUE(application.isHeld()) << "asking again is a fresh wish";
}

TEST_F(Scenario, aRefusedAssertionIsTriedAgainEverySecond) {
  application.machine().change([](SimulatedWorld& world) { world.systemAssertionWorks = false; });
  application.start();
  application.hook(AgentType::claude, AgentState::working);
  application.run(5s);
  EXPECT_TRUE(application.decision().isHolding());
  EXPECT_FALSE(application.isHeld());
  application.machine().change([](SimulatedWorld& world) { world.systemAssertionWorks = true; });
  application.run(1s);
  EXPECT_TRUE(application.isHeld());
}

TEST_F(Scenario, nothingIsHeldAfterTheEndHoweverItComes) {
  application.start();
  ASSERT_TRUE(application.app().settings().setPreventDisplaySleep(true));
  application.hook(AgentType::claude, AgentState::working);
  application.settle();
  EXPECT_TRUE(application.isHeld() && application.isDisplayHeld());
  application.kill();
  EXPECT_TRUE(application.machine().heldAssertions().empty());
}

TEST_F(Scenario, aWorldFileMovesTheMachineAndABrokenOneLeavesIt) {
  const TemporaryDirectory directory;
  const auto path = directory.file("world.json");
  const auto write = [&](std::string_view text) { std::ofstream(path) << text; };
  write(R"({"power":{"batteryPercent":29,"isOnAC":false,"isLowPowerMode":true,"timeRemainingMinutes":40},
            "thermalState":"serious","lidClosed":true,"processes":["  812 /usr/local/bin/codex exec fix tests"],
            "applications":[{"name":"Cursor","bundleIdentifier":"com.example.cursor","pid":4711}],
            "assertions":{"system":"ok","display":"fail"}})");
  SimulatedWorldFile file(path, application.machine());
  EXPECT_EQ(application.machine().problem(), std::nullopt);
  application.start();
  application.run(1s);
  EXPECT_TRUE(application.isHeld());
  const auto& context = *application.app().coordinator().lastContext();
  EXPECT_EQ(context.powerSource, (PowerSourceSnapshot{29, false, false, true, 40}));
  EXPECT_EQ(context.thermalState, SystemThermalState::serious);
  EXPECT_EQ(application.machine().world().applications.size(), 1U);

  const auto before = application.machine().world();
  const std::vector<std::pair<const char*, const char*>> broken{
      {"{\"lidClosed\":", "world: not valid JSON"},
      {"[]", "world: not a JSON object"},
      {R"({"thermalState":"hot"})", "world: \"thermalState\" is none of nominal, fair, serious and critical"},
      {R"({"power":{"batteryPercent":140}})", "power: \"batteryPercent\" is not between 0 and 100"},
      {R"({"power":3})", "power: not a JSON object"},
      {R"({"processes":["codex"]})", "world: \"codex\" is no process line (\"PID COMMAND\")"},
      {R"({"processes":[812]})", "world: \"processes\" holds something that is not a string"},
      {R"({"applications":[{"pid":0}]})", "application: \"pid\" is not a process id"},
      {R"({"assertions":{"system":"maybe"}})", "assertions: \"system\" is neither \"ok\" nor \"fail\""},
  };
  for (const auto& [text, problem] : broken) {
    write(text);
    file.reload();
    EXPECT_EQ(application.machine().problem(),
              path + ": " + problem + "; the simulated machine stays as it was");
    EXPECT_EQ(application.machine().world(), before);
  }
  write(R"({"thermalState":"critical"})");
  file.reload();
  application.settle();
  EXPECT_EQ(application.machine().problem(), std::nullopt);
  EXPECT_FALSE(application.isHeld());
}

}  // namespace
}  // namespace vimbrel
