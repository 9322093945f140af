// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "Support/VirtualTime.h"
#include "System/GlobalShortcutController.h"
#include "System/LaunchAtLoginController.h"
#include "System/ProtectionNotices.h"

namespace vimbrel {
namespace {

struct RecordingCenter final : NotificationCenter {
  bool isAvailable() override { return available; }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) override {
    answer(true);
  }
  void post(const Notification& notification, Completion completion) override {
    posted.push_back(notification);
    completion({});
  }
  bool available = true;
  std::vector<Notification> posted;
};

struct RecordingSounds final : SoundPlayer {
  bool play(std::string_view name) override {
    played += name;
    return known;
  }
  void beep() override { played += "beep"; }
  bool known = true;
  std::string played;
};

struct FixedBattery final : BatteryMonitoring {
  PowerSourceSnapshot currentSnapshot() const override { return snapshot; }
  void setOnPowerSourceChanged(ChangeCallback) override {}
  void start() override {}
  void stop() override {}
  PowerSourceSnapshot snapshot;
};

class Notices : public testing::Test {
 protected:
  Notices() {
    battery_->snapshot.batteryPercent = 14;
    controller_ = std::make_shared<NotificationController>(settings_, center_, sounds_, time_.mainQueue());
  }
  /// Identifier and body of what the step posts.
  std::string step(const WakeDecision& previous, const WakeDecision& next) {
    center_->posted.clear();
    ProtectionNotices(controller_, battery_).didApply(previous, next);
    time_.runReady();
    return center_->posted.empty() ? "" : center_->posted[0].identifier + ": " + center_->posted[0].body;
  }
  VirtualTime time_{instantFromUnixSeconds(0)};
  std::shared_ptr<SettingsStore> settings_ =
      std::make_shared<SettingsStore>(std::make_shared<MemoryPreferences>(), time_);
  std::shared_ptr<RecordingCenter> center_ = std::make_shared<RecordingCenter>();
  std::shared_ptr<RecordingSounds> sounds_ = std::make_shared<RecordingSounds>();
  std::shared_ptr<FixedBattery> battery_ = std::make_shared<FixedBattery>();
  std::shared_ptr<NotificationController> controller_;
};

TEST_F(Notices, tellOfEachStepThatTheUserDidNotMake) {
  const auto idle = WakeDecision::release("x");
  const auto hold = WakeDecision::hold("a", 0, false);
  const auto blocked = [](SafetyBlock block) { return WakeDecision::blocked(block); };
  struct Case {
    WakeDecision previous;
    WakeDecision next;
    std::string notice;
  };
  for (const auto& [previous, next, notice] : {
           Case{idle, hold, "vimbrel.started: 1 coding agent session working."},
           Case{blocked(SafetyBlock::paused), WakeDecision::hold("a", 3, true),
                "vimbrel.started: 3 coding agent sessions working."},
           Case{hold, WakeDecision::hold("b", 2, true), ""},
           Case{hold, idle, "vimbrel.finished: Normal sleep behavior has been restored."},
           Case{hold, blocked(SafetyBlock::thermalCritical),
                "vimbrel.thermal: Vimbrel released sleep protection so macOS can cool down normally."},
           Case{hold, blocked(SafetyBlock::batteryBelowFloor),
                "vimbrel.battery: Vimbrel released sleep protection at 14%."},
           Case{hold, blocked(SafetyBlock::masterDisabled), ""},
           Case{hold, blocked(SafetyBlock::acDisconnected), ""},
           Case{idle, blocked(SafetyBlock::thermalCritical), ""},
       }) {
    EXPECT_EQ(step(previous, next), notice);
  }
  battery_->snapshot.batteryPercent.reset();
  EXPECT_EQ(step(hold, blocked(SafetyBlock::batteryBelowFloor)), "");
}

TEST_F(Notices, followTheirSettings) {
  const auto start = [&] { return step(WakeDecision::release("x"), WakeDecision::hold("a", 1, false)); };
  EXPECT_NE(start(), "");
  EXPECT_EQ(std::exchange(sounds_->played, ""), "Hero");
  sounds_->known = false;
  start();
  EXPECT_EQ(std::exchange(sounds_->played, ""), "Herobeep");
  ASSERT_TRUE(settings_->setSoundEnabled(false));
  EXPECT_NE(start(), "");
  EXPECT_EQ(sounds_->played, "");
  ASSERT_TRUE(settings_->setNotificationsEnabled(false) && settings_->setSoundEnabled(true));
  EXPECT_EQ(start(), "");
  EXPECT_EQ(sounds_->played, "");
  // Without a service there is nothing to show, but the chime still plays.
  ASSERT_TRUE(settings_->setNotificationsEnabled(true));
  center_->available = false;
  EXPECT_EQ(start(), "");
  EXPECT_EQ(sounds_->played, "Herobeep");
}

struct FakeLoginItem final : LoginItem {
  LoginItemStatus status() override { return state; }
  std::expected<void, std::string> registerItem() override {
    ++calls;
    if (fails) return std::unexpected("read-only file system");
    state = LoginItemStatus::enabled;
    return {};
  }
  std::expected<void, std::string> unregisterItem() override {
    ++calls;
    state = LoginItemStatus::notRegistered;
    return {};
  }
  LoginItemStatus state = LoginItemStatus::notRegistered;
  bool fails = false;
  int calls = 0;
};

TEST(LaunchAtLogin, registersOnlyWhenThereIsSomethingToDo) {
  auto item = std::make_shared<FakeLoginItem>();
  LaunchAtLoginController controller(item);
  item->state = LoginItemStatus::requiresApproval;
  EXPECT_EQ(controller.statusDescription(), "Requires User Approval in System Settings");
  EXPECT_TRUE(controller.setEnabled(false));
  EXPECT_EQ(item->calls, 0);
  item->fails = true;
  EXPECT_FALSE(controller.setEnabled(true));
  item->fails = false;
  EXPECT_TRUE(controller.setEnabled(true));
  EXPECT_TRUE(controller.setEnabled(true));
  EXPECT_EQ(item->calls, 2);
  EXPECT_TRUE(controller.setEnabled(false));
  EXPECT_EQ(controller.statusDescription(), "Not Registered");
}

struct FakeShortcut final : KeyShortcut {
  std::expected<Token, std::string> watch(std::function<void()> handler) override {
    if (!refusal.empty()) return std::unexpected(refusal);
    ++watching;
    pressed = std::move(handler);
    return Token{[this] { --watching; }};
  }
  std::string refusal;
  int watching = 0;
  std::function<void()> pressed;
};

TEST(GlobalShortcut, watchesOnceAndSaysWhyItCannot) {
  auto keys = std::make_shared<FakeShortcut>();
  auto controller = std::make_shared<GlobalShortcutController>(keys);
  int toggles = 0;
  controller->setOnToggleRequested([&] { ++toggles; });
  controller->start();
  controller->start();
  EXPECT_EQ(keys->watching, 1);
  keys->pressed();
  EXPECT_EQ(toggles, 1);
  controller->stop();
  EXPECT_EQ(keys->watching, 0);
  keys->refusal = "another program holds the keys";
  controller->start();
  EXPECT_FALSE(controller->isMonitoring());
  EXPECT_EQ(controller->refusal(), "another program holds the keys");
}

}  // namespace
}  // namespace vimbrel
