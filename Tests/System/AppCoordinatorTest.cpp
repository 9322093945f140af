// SPDX-License-Identifier: Apache-2.0
#include "System/AppCoordinator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
const Instant noon = instantFromUnixSeconds(1'800'000'000);

/// What every substitute was told, in order.
using Journal = std::vector<std::string>;

struct FakeAssertions final : IdleWakeControlling {
  explicit FakeAssertions(Journal& written) : journal(written) {}
  bool isActive() const override { return active; }
  bool acquire(std::string_view reason, bool preventDisplaySleep) override {
    journal.push_back("acquire " + std::string(reason) + (preventDisplaySleep ? " +display" : ""));
    return true;
  }
  void release() override { journal.push_back("release"); }
  Journal& journal;
  bool active = false;
};

struct FakeBattery final : BatteryMonitoring {
  explicit FakeBattery(Journal& written) : journal(written) {}
  PowerSourceSnapshot currentSnapshot() const override { return snapshot; }
  void setOnPowerSourceChanged(ChangeCallback callback) override { changed = std::move(callback); }
  void start() override { journal.push_back("start battery"); }
  void stop() override { journal.push_back("stop battery"); }
  Journal& journal;
  PowerSourceSnapshot snapshot;
  ChangeCallback changed;
};

struct FakeThermal final : ThermalMonitoring {
  explicit FakeThermal(Journal& written) : journal(written) {}
  SystemThermalState currentThermalState() const override { return state; }
  void setOnThermalStateChanged(ChangeCallback callback) override { changed = std::move(callback); }
  void start() override { journal.push_back("start thermal"); }
  void stop() override { journal.push_back("stop thermal"); }
  Journal& journal;
  SystemThermalState state = SystemThermalState::nominal;
  ChangeCallback changed;
};

struct FakeLid final : LidMonitoring {
  explicit FakeLid(Journal& written) : journal(written) {}
  bool isLidClosed() const override { return closed; }
  void setOnLidStateChanged(ChangeCallback callback) override { changed = std::move(callback); }
  void start() override { journal.push_back("start lid"); }
  void stop() override { journal.push_back("stop lid"); }
  Journal& journal;
  bool closed = false;
  ChangeCallback changed;
};

struct FakeReceiver final : HookEventReceiving {
  explicit FakeReceiver(Journal& written) : journal(written) {}
  void setDelegate(std::weak_ptr<HookEventReceiverDelegate> receiver) override {
    delegate = std::move(receiver);
  }
  std::expected<void, HookReceiverError> start() override {
    journal.push_back("start receiver");
    if (fails) return std::unexpected(HookReceiverError{HookReceiverError::Fault::system, 13, "no socket"});
    return {};
  }
  void stop() override { journal.push_back("stop receiver"); }
  bool isRunning() const override { return !fails; }
  Journal& journal;
  std::weak_ptr<HookEventReceiverDelegate> delegate;
  bool fails = false;
};

struct FakeProcesses final : ProcessMonitoring {
  explicit FakeProcesses(Journal& written) : journal(written) {}
  void setOnProcessesUpdated(UpdateCallback callback) override { updated = std::move(callback); }
  void start(double interval) override { journal.push_back("start processes " + std::to_string(interval)); }
  void stop() override { journal.push_back("stop processes"); }
  Journal& journal;
  UpdateCallback updated;
};

struct FakeService final : CoordinatorService {
  explicit FakeService(Journal& written) : journal(written) {}
  void willStart() override { journal.push_back("willStart"); }
  void didStartIntake() override { journal.push_back("didStartIntake"); }
  void didStartTimer() override { journal.push_back("didStartTimer"); }
  void didDecide(const PolicyEvaluationContext&, const SessionSnapshot::Entries&,
                 const WakeDecision&) override {
    ++evaluations;
  }
  void didApply(const WakeDecision& previous, const WakeDecision& next) override {
    if (previous.isHolding() != next.isHolding()) journal.push_back("applied " + next.statusDescription());
  }
  void willStopIntake() override { journal.push_back("willStopIntake"); }
  void didStopIntake() override { journal.push_back("didStopIntake"); }
  void didStop() override { journal.push_back("didStop"); }
  Journal& journal;
  int evaluations = 0;
};

/// A coordinator on virtual time with substitutes for everything that touches the machine.
struct Coordinator : testing::Test {
  VirtualTime time{noon};
  Journal journal;
  std::shared_ptr<FakeBattery> battery = std::make_shared<FakeBattery>(journal);
  std::shared_ptr<FakeThermal> thermal = std::make_shared<FakeThermal>(journal);
  std::shared_ptr<FakeAssertions> assertions = std::make_shared<FakeAssertions>(journal);
  std::shared_ptr<FakeLid> lid = std::make_shared<FakeLid>(journal);
  std::shared_ptr<FakeReceiver> receiver = std::make_shared<FakeReceiver>(journal);
  std::shared_ptr<FakeProcesses> processes = std::make_shared<FakeProcesses>(journal);
  std::shared_ptr<FakeService> service = std::make_shared<FakeService>(journal);
  std::shared_ptr<AgentStateCoordinator> agents = std::make_shared<AgentStateCoordinator>(time);
  std::shared_ptr<SettingsStore> settings =
      std::make_shared<SettingsStore>(std::make_shared<MemoryPreferences>(), time);
  std::shared_ptr<AppCoordinator> coordinator = AppCoordinator::create({.settings = settings,
                                                                        .agentCoordinator = agents,
                                                                        .idleAssertionController = assertions,
                                                                        .batteryMonitor = battery,
                                                                        .thermalMonitor = thermal,
                                                                        .lidMonitor = lid,
                                                                        .hookReceiver = receiver,
                                                                        .processMonitor = processes,
                                                                        .mainQueue = time.mainQueue(),
                                                                        .services = {service}},
                                                                       time);

  void hook(AgentState state, std::string session = "s") {
    HookEvent event;
    event.agent = AgentType::claude;
    event.sessionId = std::move(session);
    event.state = state;
    event.timestamp = time.now();
    agents->didReceiveHookEvent(event);
  }
  Journal takeJournal() { return std::exchange(journal, {}); }
  int evaluationsOf(const std::function<void()>& trigger) {
    time.runReady();
    const int before = service->evaluations;
    trigger();
    EXPECT_EQ(service->evaluations, before) << "evaluations come later, on the main queue";
    time.runReady();
    return service->evaluations - before;
  }
};

TEST_F(Coordinator, startsAndStopsEverythingInOrder) {
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_EQ(coordinator->currentDecision().get(), WakeDecision::release("Initializing"));
  coordinator->start();
  EXPECT_THAT(takeJournal(),
              ElementsAre("willStart", "start battery", "start thermal", "start lid",
                          "start processes 1.000000", "start receiver", "didStartIntake", "didStartTimer"));
  EXPECT_EQ(coordinator->currentDecision().get(), WakeDecision::release("No active agent sessions"));
  coordinator->stop();
  EXPECT_THAT(takeJournal(), ElementsAre("willStopIntake", "stop receiver", "stop battery", "stop thermal",
                                         "stop processes", "didStopIntake", "release", "didStop"));
  const int evaluations = service->evaluations;
  time.advance(10s);
  EXPECT_EQ(service->evaluations, evaluations) << "the timer is cancelled";
}

TEST_F(Coordinator, runsOnWithoutAReceiver) {
  CapturedLog log;
  receiver->fails = true;
  coordinator->start();
  EXPECT_THAT(log.take(), Contains("error coordinator: Failed to start hook receiver: no socket"));
  ASSERT_TRUE(coordinator->hookReceiverError());
  const int evaluations = service->evaluations;
  time.advance(3s);
  EXPECT_EQ(service->evaluations, evaluations + 3);
}

TEST_F(Coordinator, appliesEveryKindOfTransition) {
  const auto evaluate = [&] {
    coordinator->evaluate();
    return takeJournal();
  };
  ASSERT_TRUE(settings->setDeepLidProtectionEnabled(false));
  EXPECT_THAT(evaluate(), IsEmpty()) << "not hold to not hold";

  hook(AgentState::working);
  EXPECT_THAT(evaluate(), ElementsAre("acquire Claude Code working",
                                      "applied Active (1 working agent) — Claude Code working"));
  EXPECT_EQ(coordinator->protectionStartedAt().get(), noon);

  time.jumpWallClock(10s);
  ASSERT_TRUE(settings->setManualHoldEnabled(true));
  ASSERT_TRUE(settings->setPreventDisplaySleep(true));
  EXPECT_THAT(evaluate(), ElementsAre("acquire Manual hold requested +display")) << "hold to another hold";
  EXPECT_EQ(coordinator->protectionStartedAt().get(), noon);
  EXPECT_EQ(coordinator->elapsedProtectionSeconds(), 10);

  thermal->state = SystemThermalState::critical;
  EXPECT_THAT(evaluate(), ElementsAre("release", "applied Safety blocked: Thermal critical safety cutoff"));
  EXPECT_EQ(coordinator->protectionStartedAt().get(), std::nullopt);
  EXPECT_EQ(coordinator->elapsedProtectionSeconds(), 0);
  EXPECT_THAT(evaluate(), IsEmpty()) << "blocked to blocked";

  thermal->state = SystemThermalState::nominal;
  EXPECT_EQ(evaluate().size(), 2U);
  ASSERT_TRUE(settings->setManualHoldEnabled(false));
  ASSERT_TRUE(settings->setReleaseDelaySeconds(0));
  hook(AgentState::completed);
  EXPECT_THAT(evaluate(), ElementsAre("release", "applied Sleep enabled — No active agent sessions"));
}

TEST_F(Coordinator, keepsABatteryCutOffUntilTheMarginOrACPower) {
  hook(AgentState::working);
  const auto heldAt = [&](std::int64_t percent, bool isOnAC = false) {
    battery->snapshot = {percent, false, isOnAC, false, std::nullopt};
    coordinator->evaluate();
    return coordinator->currentDecision().get().isHolding();
  };
  EXPECT_TRUE(heldAt(16));
  EXPECT_FALSE(heldAt(14));
  EXPECT_FALSE(heldAt(16));
  EXPECT_FALSE(heldAt(17));
  EXPECT_TRUE(heldAt(18));
  EXPECT_TRUE(heldAt(16));
  EXPECT_FALSE(heldAt(15));
  EXPECT_TRUE(heldAt(15, true)) << "plugging in clears the cut-off at any charge";
  EXPECT_TRUE(heldAt(16));

  // A pause hides the cut-off but does not end it, and neither does a charge that is unknown.
  EXPECT_FALSE(heldAt(14));
  ASSERT_TRUE(settings->pause(1h));
  EXPECT_FALSE(heldAt(17));
  battery->snapshot.batteryPercent.reset();
  coordinator->evaluate();
  ASSERT_TRUE(settings->resume());
  EXPECT_FALSE(heldAt(17));
}

TEST_F(Coordinator, evaluatesOnEveryTriggerAndOnceForMany) {
  EXPECT_EQ(evaluationsOf([&] { battery->changed({}); }), 1);
  EXPECT_EQ(evaluationsOf([&] { thermal->changed(SystemThermalState::fair); }), 1);
  EXPECT_EQ(evaluationsOf([&] { lid->changed(true); }), 1);
  EXPECT_EQ(evaluationsOf([&] { hook(AgentState::idle); }), 1);
  EXPECT_EQ(evaluationsOf([&] { EXPECT_TRUE(settings->setOnlyOnAC(false)); }), 1);
  EXPECT_EQ(evaluationsOf([&] {
              for (int i = 0; i < 50; ++i) hook(AgentState::idle, "s" + std::to_string(i));
              EXPECT_TRUE(settings->resetToDefaults());
              battery->changed({});
            }),
            1);
  EXPECT_EQ(
      evaluationsOf([&] {
        processes->updated({{.agent = AgentType::codex, .pid = 7, .isWorking = true, .command = "codex"}});
      }),
      1)
      << "the scan is merged, then evaluated, and the merge asks for no second evaluation";
  EXPECT_TRUE(coordinator->currentDecision().get().isHolding());
}

TEST_F(Coordinator, tellsSurfacesOnlyWhatIsNew) {
  coordinator->start();
  int told = 0;
  int assigned = 0;
  const auto token = coordinator->stateChanged().subscribe([&] { ++told; });
  const auto other = coordinator->currentDecision().subscribe([&] { ++assigned; });
  time.advance(10s);
  EXPECT_EQ(told, 0);
  EXPECT_EQ(assigned, 10);
  hook(AgentState::working);
  time.runReady();
  EXPECT_EQ(told, 1);
  ASSERT_TRUE(coordinator->lastContext());
  EXPECT_EQ(coordinator->lastContext()->sessions.size(), 1U);
  ASSERT_TRUE(settings->setHasCompletedOnboarding(true));
  time.runReady();
  EXPECT_EQ(told, 2) << "no decision depends on it, but windows show it";
  lid->closed = true;
  lid->changed(true);
  time.runReady();
  EXPECT_EQ(told, 3) << "nor on the lid";
  assertions->active = true;
  time.advance(3s);
  EXPECT_EQ(told, 4) << "the platform grants, later, what it refused";
  ASSERT_TRUE(settings->setMasterEnabled(false));
  ASSERT_TRUE(settings->setPauseUntil(time.now() + Seconds(5)));
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
  coordinator->evaluate();
  std::string order;
  for (const auto& session : coordinator->activeSessionsList().get()) order += session->id;
  EXPECT_EQ(order, "abc");
}

TEST_F(Coordinator, isNotMissedByLateCallbacks) {
  coordinator->start();
  hook(AgentState::working);
  processes->updated({});
  coordinator.reset();
  time.advance(5s);
  battery->changed({});
  lid->changed(true);
  ASSERT_TRUE(settings->setOnlyOnAC(true));
  hook(AgentState::idle);
  processes->updated({});
  time.advance(5s);
}

}  // namespace
}  // namespace vimbrel
