// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/VirtualTime.h"
#include "System/AppCoordinator.h"
#include "System/DeepHoldService.h"
#include "System/ProtectionNotices.h"

namespace vimbrel {
namespace {

using Journal = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

struct Assertions final : IdleWakeControlling {
  explicit Assertions(Journal& written) : journal(written) {}
  bool isActive() const override { return false; }
  bool acquire(std::string_view reason, bool) override {
    // An unchanged hold asks for the same again, which takes nothing.
    if (reason != held) journal.push_back("hold " + std::string(reason));
    held = reason;
    return true;
  }
  void release() override {
    journal.emplace_back("release");
    held.clear();
  }
  Journal& journal;
  std::string held;
};

struct Lid final : DeepSleepControlling {
  explicit Lid(Journal& written) : journal(written) {}
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
  void letLapse() override {
    if (std::exchange(isCovered, false)) journal.emplace_back("let the lid lapse");
  }
  std::string lastRefusal() const override { return ""; }
  std::optional<std::string> leaseId() const override { return std::nullopt; }
  Journal& journal;
  bool isCovered = false;
};

struct Center final : NotificationCenter {
  explicit Center(Journal& written) : journal(written) {}
  bool isAvailable() override { return true; }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)>) override {}
  void post(const Notification& notification, Completion) override {
    journal.push_back(notification.identifier + ": " + notification.body);
  }
  Journal& journal;
};

struct Sounds final : SoundPlayer {
  explicit Sounds(Journal& written) : journal(written) {}
  bool play(std::string_view name) override {
    journal.push_back("sound " + std::string(name));
    return true;
  }
  void beep() override { journal.emplace_back("beep"); }
  Journal& journal;
};

struct Battery final : BatteryMonitoring {
  PowerSourceSnapshot currentSnapshot() const override { return snapshot; }
  void setOnPowerSourceChanged(ChangeCallback) override {}
  void start() override {}
  void stop() override {}
  PowerSourceSnapshot snapshot;
};
struct Thermal final : ThermalMonitoring {
  SystemThermalState currentThermalState() const override { return state; }
  void setOnThermalStateChanged(ChangeCallback) override {}
  void start() override {}
  void stop() override {}
  SystemThermalState state = SystemThermalState::nominal;
};
struct NoLid final : LidMonitoring {
  bool isLidClosed() const override { return false; }
  void setOnLidStateChanged(ChangeCallback) override {}
  void start() override {}
  void stop() override {}
};
struct NoReceiver final : HookEventReceiving {
  void setDelegate(std::weak_ptr<HookEventReceiverDelegate>) override {}
  std::expected<void, HookReceiverError> start() override { return {}; }
  void stop() override {}
  bool isRunning() const override { return true; }
};
struct NoProcesses final : ProcessMonitoring {
  void setOnProcessesUpdated(UpdateCallback) override {}
  void start(double) override {}
  void stop() override {}
};

/// The loop with a substitute for everything that it steers, all of which write in one journal.
struct Transitions : testing::Test {
  VirtualTime time{instantFromUnixSeconds(1'800'000'000)};
  Journal journal;
  std::shared_ptr<SettingsStore> settings =
      std::make_shared<SettingsStore>(std::make_shared<MemoryPreferences>(), time);
  std::shared_ptr<Battery> battery = std::make_shared<Battery>();
  std::shared_ptr<Thermal> thermal = std::make_shared<Thermal>();
  std::shared_ptr<AgentStateCoordinator> agents = std::make_shared<AgentStateCoordinator>(time);
  std::shared_ptr<NotificationController> notifications = std::make_shared<NotificationController>(
      settings, std::make_shared<Center>(journal), std::make_shared<Sounds>(journal), time.mainQueue());
  std::shared_ptr<AppCoordinator> coordinator =
      AppCoordinator::create({.settings = settings,
                              .agentCoordinator = agents,
                              .idleAssertionController = std::make_shared<Assertions>(journal),
                              .batteryMonitor = battery,
                              .thermalMonitor = thermal,
                              .lidMonitor = std::make_shared<NoLid>(),
                              .hookReceiver = std::make_shared<NoReceiver>(),
                              .processMonitor = std::make_shared<NoProcesses>(),
                              .mainQueue = time.mainQueue(),
                              .services = {std::make_shared<DeepHoldService>(std::make_shared<Lid>(journal),
                                                                             time.mainQueue(), time, true),
                                           std::make_shared<ProtectionNotices>(notifications, battery)}},
                             time);

  void hook(AgentState state, AgentType agent = AgentType::claude) {
    HookEvent event;
    event.agent = agent;
    event.sessionId = std::string(rawValue(agent));
    event.state = state;
    event.timestamp = time.now();
    agents->didReceiveHookEvent(event);
  }
  /// What one evaluation does, and a second one right after it, which must do nothing.
  Journal evaluation() {
    coordinator->evaluate();
    time.runReady();
    auto done = std::exchange(journal, {});
    coordinator->evaluate();
    time.runReady();
    EXPECT_THAT(std::exchange(journal, {}), IsEmpty()) << "the same decision again does nothing again";
    return done;
  }
};

TEST_F(Transitions, doEachRowsActionsInOrderAndOnce) {
  EXPECT_THAT(evaluation(), IsEmpty()) << "not held, not held";
  hook(AgentState::working);
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code working", "cover the lid",
                                        "vimbrel.started: 1 coding agent session working.", "sound Hero"));
  hook(AgentState::working, AgentType::codex);
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code, Codex CLI working")) << "another hold, no notice";
  thermal->state = SystemThermalState::critical;
  EXPECT_THAT(
      evaluation(),
      ElementsAre("release", "uncover the lid",
                  "vimbrel.thermal: Vimbrel released sleep protection so macOS can cool down normally.",
                  "sound Hero"));
  ASSERT_TRUE(settings->setMasterEnabled(false));
  EXPECT_THAT(evaluation(), IsEmpty()) << "one block takes the place of another";
  thermal->state = SystemThermalState::nominal;
  ASSERT_TRUE(settings->setMasterEnabled(true));
  EXPECT_THAT(evaluation(), ElementsAre("hold Claude Code, Codex CLI working", "cover the lid",
                                        "vimbrel.started: 2 coding agent sessions working.", "sound Hero"));
  battery->snapshot = {14, false, false, false, std::nullopt};
  EXPECT_THAT(evaluation(),
              ElementsAre("release", "uncover the lid",
                          "vimbrel.battery: Vimbrel released sleep protection at 14%.", "sound Hero"));
  battery->snapshot = {14, false, true, false, std::nullopt};
  EXPECT_EQ(evaluation().size(), 4U);
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
    EXPECT_EQ(evaluation().size(), 4U);
  }
  ASSERT_TRUE(settings->setReleaseDelaySeconds(0));
  hook(AgentState::idle);
  hook(AgentState::completed, AgentType::codex);
  EXPECT_THAT(evaluation(),
              ElementsAre("release", "uncover the lid",
                          "vimbrel.finished: Normal sleep behavior has been restored.", "sound Hero"));
  ASSERT_TRUE(settings->setDeepLidProtectionEnabled(false) && settings->setManualHoldEnabled(true));
  EXPECT_THAT(evaluation(), ElementsAre("hold Manual hold requested",
                                        "vimbrel.started: 1 coding agent session working.", "sound Hero"))
      << "no lid; a hold without agents speaks of one";
}

}  // namespace
}  // namespace vimbrel
