// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/Hooks/DirectHookReceiver.h"
#include "CapturedLog.h"
#include "Platform/Simulated/SimulatedMachine.h"
#include "Support/VirtualTime.h"
#include "System/Application.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

struct Center final : NotificationCenter {
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

struct Sounds final : SoundPlayer {
  bool play(std::string_view name) override {
    played += name;
    return known;
  }
  void beep() override { played += "beep"; }
  bool known = true;
  std::string played;
};

struct Keys final : KeyShortcut {
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

struct Item final : LoginItem {
  LoginItemStatus status() override { return state; }
  std::expected<void, std::string> registerItem() override {
    ++calls;
    state = LoginItemStatus::enabled;
    return {};
  }
  std::expected<void, std::string> unregisterItem() override {
    ++calls;
    state = LoginItemStatus::notRegistered;
    return {};
  }
  LoginItemStatus state = LoginItemStatus::notRegistered;
  int calls = 0;
};

/// The running application on virtual time and a simulated machine, beside a desktop that remembers.
struct ApplicationWorld : testing::Test {
  CapturedLog log;
  TemporaryDirectory directory;
  VirtualTime time{instantFromUnixSeconds(1'800'000'000)};
  SimulatedMachine machine{time.mainQueue(), SimulatedWorld{}};
  std::shared_ptr<DirectHookReceiver> receiver = std::make_shared<DirectHookReceiver>(time, time);
  std::shared_ptr<Center> center = std::make_shared<Center>();
  std::shared_ptr<Sounds> sounds = std::make_shared<Sounds>();
  std::shared_ptr<Keys> keys = std::make_shared<Keys>();
  std::shared_ptr<Item> item = std::make_shared<Item>();
  std::optional<Application> application;

  void launch(ApplicationOptions options = {}) {
    auto platform = machine.services();
    platform.notificationCenter = center;
    platform.soundPlayer = sounds;
    platform.keyShortcut = keys;
    platform.loginItem = item;
    platform.describeSystem = [] { return std::string("Test OS 1"); };
    platform.listAssertions = [] { return std::string("nothing\n"); };
    if (!options.hookReceiver) options.hookReceiver = receiver;
    application.emplace(std::move(platform), time, time,
                        ApplicationDirectories{directory.path(), directory.path(), directory.path()},
                        std::move(options));
    application->start();
    time.runReady();
  }
  void hook(AgentState state, const std::string& session = "s1", AgentType agent = AgentType::claude) {
    HookEvent event;
    event.agent = agent;
    event.sessionId = session;
    event.state = state;
    event.timestamp = time.now();
    receiver->send(event.toJSONData());
    time.runReady();
  }
  SettingsStore& settings() { return application->settings(); }
  AppCoordinator& coordinator() { return application->coordinator(); }
  bool isHolding() { return coordinator().currentDecision().get().isHolding(); }
};

}  // namespace vimbrel
