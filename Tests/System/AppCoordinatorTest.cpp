// SPDX-License-Identifier: Apache-2.0
#include "System/AppCoordinator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ApplicationWorld.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// Writes down what it is told.
struct Recorder final : CoordinatorService {
  void willStart() override { note("willStart"); }
  void didStartIntake() override { note("didStartIntake"); }
  void didStartTimer() override { note("didStartTimer"); }
  void didDecide(const PolicyEvaluationContext&, const SessionSnapshot::Entries&,
                 const WakeDecision&) override {
    ++evaluations;
  }
  void willStopIntake() override { note("willStopIntake"); }
  void didStopIntake() override { note("didStopIntake"); }
  void didStop() override { note("didStop"); }
  std::function<void(std::string)> note;
  int evaluations = 0;
};

struct Coordinator : ApplicationWorld {
  std::vector<std::string> journal;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

  Coordinator() {
    recorder->note = [this](std::string what) {
      if (receiver->isRunning()) what += ", hooks are heard";
      if (!machine.heldAssertions().empty()) what += ", held";
      journal.push_back(std::move(what));
    };
    launch({.services = {recorder}});
  }
  void change(const std::function<void(SimulatedWorld&)>& edit) {
    machine.change(edit);
    time.runReady();
  }
  void battery(std::optional<std::int64_t> percent, bool isOnAC) {
    change(
        [&](auto& world) { world.power = PowerSourceSnapshot{percent, false, isOnAC, false, std::nullopt}; });
  }
  void heat(SystemThermalState state) {
    change([&](auto& world) { world.thermalState = state; });
  }
  /// What is held now and the notices since the last call, after ten more evaluations that must add nothing.
  std::string outcome() {
    time.runReady();
    const auto granted = machine.grantedCount();
    time.advance(10s);
    EXPECT_EQ(machine.grantedCount(), granted) << "the same decision again takes nothing again";
    std::string text;
    for (const auto& held : machine.heldAssertions()) {
      text += held.type == AssertionType::preventUserIdleSystemSleep ? "system " : "display ";
    }
    if (application->deepHold().report().cover == LidCover::covered) text += "lid ";
    for (const auto& notice : std::exchange(center->posted, {})) {
      text += "(" + notice.identifier + ": " + notice.body + ")";
    }
    return text;
  }
};

TEST_F(Coordinator, startsAndStopsInOrder) {
  hook(AgentState::working);
  application->stop();
  EXPECT_THAT(journal,
              ElementsAre("willStart", "didStartIntake, hooks are heard", "didStartTimer, hooks are heard",
                          "willStopIntake, hooks are heard, held", "didStopIntake, held", "didStop"));
  const int evaluations = recorder->evaluations;
  time.advance(10s);
  EXPECT_EQ(recorder->evaluations, evaluations) << "the timer is cancelled";
}

TEST_F(Coordinator, runsOnWithoutAReceiver) {
  struct Deaf final : HookEventReceiving {
    void setDelegate(std::weak_ptr<HookEventReceiverDelegate>) override {}
    std::expected<void, HookReceiverError> start() override {
      return std::unexpected(HookReceiverError{HookReceiverError::Fault::system, 13, "no socket"});
    }
    void stop() override {}
    bool isRunning() const override { return false; }
  };
  application.reset();
  launch({.hookReceiver = std::make_shared<Deaf>(), .services = {recorder}});
  EXPECT_THAT(log.take(), testing::Contains("error coordinator: Failed to start hook receiver: no socket"));
  EXPECT_TRUE(coordinator().hookReceiverError());
  const int evaluations = recorder->evaluations;
  time.advance(3s);
  EXPECT_GE(recorder->evaluations, evaluations + 3);
}

TEST_F(Coordinator, doesTheActionsOfEachTransitionOnce) {
  EXPECT_EQ(outcome(), "") << "not held, not held";
  const auto start = time.now();
  hook(AgentState::working);
  EXPECT_EQ(outcome(), "system lid (vimbrel.started: 1 coding agent session working.)");
  ASSERT_TRUE(settings().setPreventDisplaySleep(true));
  hook(AgentState::working, "s2", AgentType::codex);
  EXPECT_EQ(outcome(), "system display lid ") << "another hold, no notice";
  EXPECT_EQ(coordinator().protectionStartedAt().get(), start);
  EXPECT_EQ(coordinator().elapsedProtectionSeconds(), 20);
  ASSERT_TRUE(settings().setPreventDisplaySleep(false));
  EXPECT_EQ(outcome(), "system lid ");

  heat(SystemThermalState::critical);
  EXPECT_EQ(outcome(),
            "(vimbrel.thermal: Vimbrel released sleep protection so macOS can cool down normally.)");
  EXPECT_EQ(coordinator().protectionStartedAt().get(), std::nullopt);
  EXPECT_EQ(coordinator().elapsedProtectionSeconds(), 0);
  ASSERT_TRUE(settings().setMasterEnabled(false));
  EXPECT_EQ(outcome(), "") << "one block takes the place of another";
  heat(SystemThermalState::nominal);
  ASSERT_TRUE(settings().setMasterEnabled(true));
  const std::string heldAgain = "system lid (vimbrel.started: 2 coding agent sessions working.)";
  EXPECT_EQ(outcome(), heldAgain);

  battery(14, false);
  EXPECT_EQ(outcome(), "(vimbrel.battery: Vimbrel released sleep protection at 14%.)");
  battery(14, true);
  EXPECT_EQ(outcome(), heldAgain);
  // What the user did needs no telling.
  for (const auto& doing : std::vector<std::function<void()>>{
           [this] { EXPECT_TRUE(settings().setMasterEnabled(false)); },
           [this] { EXPECT_TRUE(settings().pause(Seconds{60})); },
           [this] {
             EXPECT_TRUE(settings().setOnlyOnAC(true));
             battery(80, false);
           },
       }) {
    doing();
    EXPECT_EQ(outcome(), "");
    battery(80, true);
    ASSERT_TRUE(settings().setMasterEnabled(true) && settings().resume() && settings().setOnlyOnAC(false));
    EXPECT_EQ(outcome(), heldAgain);
  }

  ASSERT_TRUE(settings().setReleaseDelaySeconds(0));
  hook(AgentState::idle);
  hook(AgentState::completed, "s2", AgentType::codex);
  EXPECT_EQ(outcome(), "(vimbrel.finished: Normal sleep behavior has been restored.)");
  heat(SystemThermalState::critical);
  EXPECT_EQ(outcome(), "") << "not held, blocked";
  heat(SystemThermalState::nominal);
  ASSERT_TRUE(settings().setDeepLidProtectionEnabled(false) && settings().setManualHoldEnabled(true));
  EXPECT_EQ(outcome(), "system (vimbrel.started: 1 coding agent session working.)")
      << "no lid; a hold without agents speaks of one";
}

TEST_F(Coordinator, keepsABatteryCutOffThroughAPauseAndAnUnknownCharge) {
  hook(AgentState::working);
  battery(14, false);
  EXPECT_FALSE(isHolding());
  ASSERT_TRUE(settings().pause(1h));
  battery(17, false);
  battery(std::nullopt, false);
  ASSERT_TRUE(settings().resume());
  battery(17, false);
  EXPECT_FALSE(isHolding());
  battery(15, true);
  EXPECT_TRUE(isHolding()) << "plugging in clears the cut-off at any charge";
  battery(16, false);
  EXPECT_TRUE(isHolding());
}

TEST_F(Coordinator, evaluatesOnEveryTriggerAndOnceForMany) {
  const std::vector<std::function<void()>> triggers{
      [this] { machine.change([](auto& world) { world.power = PowerSourceSnapshot{}; }); },
      [this] { machine.change([](auto& world) { world.thermalState = SystemThermalState::fair; }); },
      [this] { machine.change([](auto& world) { world.lidClosed = true; }); },
      [this] { hook(AgentState::idle); },
      [this] {
        for (int i = 0; i < 50; ++i) EXPECT_TRUE(settings().setOnlyOnAC(i % 2 == 0));
        EXPECT_TRUE(settings().resetToDefaults());
      },
  };
  for (std::size_t i = 0; i < triggers.size(); ++i) {
    const int before = recorder->evaluations;
    triggers[i]();
    time.runReady();
    EXPECT_EQ(recorder->evaluations, before + 1) << i;
  }
}

TEST_F(Coordinator, tellsSurfacesOnlyWhatIsNew) {
  int told = 0;
  int assigned = 0;
  const auto token = coordinator().stateChanged().subscribe([&] { ++told; });
  const auto other = coordinator().currentDecision().subscribe([&] { ++assigned; });
  time.advance(10s);
  EXPECT_EQ(told, 0);
  EXPECT_GE(assigned, 10) << "though something is decided every second";
  change([](auto& world) { world.systemAssertionWorks = false; });
  hook(AgentState::working);
  EXPECT_EQ(told, 1);
  ASSERT_TRUE(settings().setHasCompletedOnboarding(true));
  time.runReady();
  EXPECT_EQ(told, 2) << "no decision depends on it, but windows show it";
  change([](auto& world) { world.lidClosed = true; });
  EXPECT_EQ(told, 3) << "nor on the lid";
  change([](auto& world) { world.systemAssertionWorks = true; });
  time.advance(3s);
  EXPECT_EQ(told, 4) << "the platform grants, later, what it refused";
  ASSERT_TRUE(settings().setMasterEnabled(false));
  ASSERT_TRUE(settings().setPauseUntil(time.now() + Seconds(5)));
  time.runReady();
  told = 0;
  time.advance(10s);
  EXPECT_EQ(told, 1) << "a pause ends, and nothing is decided otherwise";
}

TEST_F(Coordinator, listsTheNewestSessionFirst) {
  for (const auto* id : {"b", "c", "a"}) {
    hook(AgentState::idle, id);
    if (*id == 'c') time.jumpWallClock(5s);
  }
  std::string order;
  for (const auto& session : coordinator().activeSessionsList().get()) order += session->id;
  EXPECT_EQ(order, "abc");
}

}  // namespace
}  // namespace vimbrel
