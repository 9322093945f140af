// SPDX-License-Identifier: Apache-2.0
#include "System/AppCoordinator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "Support/VirtualTime.h"
#include "System/DeepHoldService.h"
#include "System/ProtectionNotices.h"

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
    // An unchanged hold asks for the same again, which takes nothing.
    const auto asked = std::string(reason) + (preventDisplaySleep ? " +display" : "");
    if (std::exchange(held, asked) != asked) journal.push_back("hold " + asked);
    return true;
  }
  void release() override {
    journal.emplace_back("release");
    held.clear();
  }
  Journal& journal;
  std::string held;
  bool active = false;
};

struct FakeHelper final : DeepSleepControlling {
  explicit FakeHelper(Journal& written) : journal(written) {}
  void status(std::move_only_function<void(DeepSleepStatus)> done) override { done({}); }
  void acquire(double ttl, std::move_only_function<void(bool)> done) override {
    EXPECT_EQ(ttl, 60);
    if (!std::exchange(isCovered, true)) journal.emplace_back("cover the lid");
    done(true);
  }
  void release(std::move_only_function<void()> done) override {
    if (std::exchange(isCovered, false)) journal.emplace_back("uncover the lid");
    if (done) done();
  }
  void letLapse() override { journal.emplace_back("let the lid lapse"); }
  std::string lastRefusal() const override { return ""; }
  std::optional<std::string> leaseId() const override { return std::nullopt; }
  Journal& journal;
  bool isCovered = false;
};

struct FakeCenter final : NotificationCenter {
  explicit FakeCenter(Journal& written) : journal(written) {}
  bool isAvailable() override { return true; }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)>) override {}
  void post(const Notification& notification, Completion) override {
    journal.push_back(notification.identifier + ": " + notification.body);
  }
  Journal& journal;
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
  std::shared_ptr<AppCoordinator> coordinator = AppCoordinator::create(
      {.settings = settings,
       .agentCoordinator = agents,
       .idleAssertionController = assertions,
       .batteryMonitor = battery,
       .thermalMonitor = thermal,
       .lidMonitor = lid,
       .hookReceiver = receiver,
       .processMonitor = processes,
       .mainQueue = time.mainQueue(),
       .services = {service,
                    std::make_shared<DeepHoldService>(std::make_shared<FakeHelper>(journal), time.mainQueue(),
                                                      time, true),
                    std::make_shared<ProtectionNotices>(
                        std::make_shared<NotificationController>(
                            settings, std::make_shared<FakeCenter>(journal), nullptr, time.mainQueue()),
                        battery)}},
      time);

  void hook(AgentState state, std::string session = "s", AgentType agent = AgentType::claude) {
    HookEvent event;
    event.agent = agent;
    event.sessionId = std::move(session);
    event.state = state;
    event.timestamp = time.now();
    agents->didReceiveHookEvent(event);
  }
  Journal takeJournal() { return std::exchange(journal, {}); }
  /// What one evaluation does, and a second one right after it, which must do nothing.
  Journal evaluation() {
    coordinator->evaluate();
    time.runReady();
    auto done = takeJournal();
    coordinator->evaluate();
    time.runReady();
    EXPECT_THAT(takeJournal(), IsEmpty()) << "the same decision again does nothing again";
    return done;
  }
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

TEST_F(Coordinator, doesTheActionsOfEachTransitionInOrderAndOnce) {
  EXPECT_THAT(evaluation(), IsEmpty()) << "not held, not held";
  hook(AgentState::working);
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code working", "cover the lid",
                                        "vimbrel.started: 1 coding agent session working."));
  EXPECT_EQ(coordinator->protectionStartedAt().get(), noon);

  time.jumpWallClock(10s);
  hook(AgentState::working, "other", AgentType::codex);
  ASSERT_TRUE(settings->setPreventDisplaySleep(true));
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code, Codex CLI working +display"))
      << "another hold, no notice";
  EXPECT_EQ(coordinator->protectionStartedAt().get(), noon);
  EXPECT_EQ(coordinator->elapsedProtectionSeconds(), 10);

  thermal->state = SystemThermalState::critical;
  EXPECT_THAT(
      evaluation(),
      ElementsAre("release", "uncover the lid",
                  "vimbrel.thermal: Vimbrel released sleep protection so macOS can cool down normally."));
  EXPECT_EQ(coordinator->protectionStartedAt().get(), std::nullopt);
  EXPECT_EQ(coordinator->elapsedProtectionSeconds(), 0);
  ASSERT_TRUE(settings->setMasterEnabled(false));
  EXPECT_THAT(evaluation(), IsEmpty()) << "one block takes the place of another";
  thermal->state = SystemThermalState::nominal;
  ASSERT_TRUE(settings->setMasterEnabled(true) && settings->setPreventDisplaySleep(false));
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code, Codex CLI working", "cover the lid",
                                        "vimbrel.started: 2 coding agent sessions working."));

  battery->snapshot = {14, false, false, false, std::nullopt};
  EXPECT_THAT(evaluation(), ElementsAre("release", "uncover the lid",
                                        "vimbrel.battery: Vimbrel released sleep protection at 14%."));
  battery->snapshot.isOnAC = true;
  EXPECT_EQ(evaluation().size(), 3U);
  // What the user did needs no telling.
  for (const auto& doing :
       std::vector<std::function<void()>>{[&] { EXPECT_TRUE(settings->setMasterEnabled(false)); },
                                          [&] { EXPECT_TRUE(settings->pause(Seconds{60})); },
                                          [&] {
                                            EXPECT_TRUE(settings->setOnlyOnAC(true));
                                            battery->snapshot.isOnAC = false;
                                          }}) {
    doing();
    EXPECT_THAT(evaluation(), ElementsAre("release", "uncover the lid"));
    ASSERT_TRUE(settings->setMasterEnabled(true) && settings->resume() && settings->setOnlyOnAC(false));
    battery->snapshot.isOnAC = true;
    EXPECT_EQ(evaluation().size(), 3U);
  }

  ASSERT_TRUE(settings->setReleaseDelaySeconds(0));
  hook(AgentState::idle);
  hook(AgentState::completed, "other", AgentType::codex);
  EXPECT_THAT(evaluation(), ElementsAre("release", "uncover the lid",
                                        "vimbrel.finished: Normal sleep behavior has been restored."));
  thermal->state = SystemThermalState::critical;
  EXPECT_THAT(evaluation(), IsEmpty()) << "not held, blocked";
  thermal->state = SystemThermalState::nominal;
  ASSERT_TRUE(settings->setDeepLidProtectionEnabled(false) && settings->setManualHoldEnabled(true));
  EXPECT_THAT(evaluation(),
              ElementsAre("hold Manual hold requested", "vimbrel.started: 1 coding agent session working."))
      << "no lid; a hold without agents speaks of one";
}

TEST_F(Coordinator, keepsABatteryCutOffUntilTheMarginOrACPower) {
  hook(AgentState::working);
  const auto heldAt = [&](std::int64_t percent, bool isOnAC = false) {
    battery->snapshot = {percent, false, isOnAC, false, std::nullopt};
    coordinator->evaluate();
    return coordinator->currentDecision().get().isHolding();
  };
  EXPECT_FALSE(heldAt(14));
  EXPECT_FALSE(heldAt(17));
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
