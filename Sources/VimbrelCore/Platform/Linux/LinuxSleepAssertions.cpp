// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxSleepAssertions.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/GnomeSessionInhibitor.h"
#include "Platform/Linux/LogindInhibitor.h"
#include "Platform/Linux/PowerManagementInhibitor.h"
#include "Platform/Linux/ScreenSaverInhibitor.h"
#include "Support/Sentence.h"

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

constexpr std::chrono::milliseconds longestWait{500};
constexpr const char* kdePowerManager = "org.kde.Solid.PowerManagement";
// KDE's users block an inhibitor by its exact name and reason, so there the reason must not vary.
constexpr const char* constantReason = "AI coding agents are working";

/// XDG_CURRENT_DESKTOP is a list with colons.
bool namesKde(std::string_view desktops) {
  while (!desktops.empty()) {
    const auto end = std::min(desktops.find(':'), desktops.size());
    if (desktops.substr(0, end) == "KDE") return true;
    desktops.remove_prefix(std::min(end + 1, desktops.size()));
  }
  return false;
}

}  // namespace

LinuxSleepAssertions::LinuxSleepAssertions(std::shared_ptr<TaskQueue> queue,
                                           std::shared_ptr<BusConnection> systemBus,
                                           std::shared_ptr<BusConnection> sessionBus,
                                           const std::string& currentDesktop)
    : queue_(std::move(queue)),
      systemBus_(std::move(systemBus)),
      sessionBus_(std::move(sessionBus)),
      desktopIsKde_(namesKde(currentDesktop)) {
  using Gnome = GnomeSessionInhibitor;
  powerManagement_ = std::make_shared<PowerManagementInhibitor>(sessionBus_, queue_);
  parts_ = {
      {std::make_shared<LogindInhibitor>(systemBus_, queue_), true, true},
      {std::make_shared<Gnome>(Gnome::Flag::suspend, sessionBus_, queue_), true, false},
      {std::make_shared<Gnome>(Gnome::Flag::idle, sessionBus_, queue_), false, true},
      {powerManagement_, true, false},
      {std::make_shared<ScreenSaverInhibitor>(sessionBus_, queue_), false, true},
  };
  kdeWatch_ = sessionBus_->watchName(kdePowerManager, [this](const std::string&) { inhibitorChanged(); });
  for (const auto& part : parts_) {
    part.inhibitor->follow([this] { inhibitorChanged(); });
  }
  announced_ = mechanisms();
}

LinuxSleepAssertions::~LinuxSleepAssertions() {
  for (const auto& part : parts_) {
    part.inhibitor->unwant();
    part.inhibitor->endFollowing();
  }
}

bool LinuxSleepAssertions::isKde() const {
  return desktopIsKde_ || !sessionBus_->ownerOf(kdePowerManager).value_or("").empty();
}

void LinuxSleepAssertions::waitUntilKnown() {
  BusConnection::waitFor(
      {systemBus_.get(), sessionBus_.get()},
      [&] {
        return std::ranges::all_of(parts_, [](const auto& part) { return part.inhibitor->isSettled(); });
      },
      std::chrono::steady_clock::now() + longestWait);
}

bool LinuxSleepAssertions::serves(const Part& part, AssertionType type) const {
  if (type == AssertionType::preventUserIdleDisplaySleep) return part.display;
  if (part.display && part.system && isKde() && powerManagement_->isOffered()) return false;
  return part.system;
}

void LinuxSleepAssertions::applyWishes() {
  for (const auto& part : parts_) {
    const auto wish =
        std::ranges::find_if(handles_, [&](const auto& entry) { return serves(part, entry.second.type); });
    if (wish == handles_.end()) {
      part.inhibitor->unwant();
    } else {
      part.inhibitor->want(isKde() ? constantReason : wish->second.name);
    }
  }
}

bool LinuxSleepAssertions::isSettled(AssertionType type) const {
  return sessionBus_->ownerOf(kdePowerManager).has_value() &&
         std::ranges::all_of(
             parts_, [&](const auto& part) { return part.inhibitor->isSettled() || !serves(part, type); });
}

bool LinuxSleepAssertions::isHeld(AssertionType type) const {
  return std::ranges::any_of(
      parts_, [&](const auto& part) { return serves(part, type) && part.inhibitor->isHeld(); });
}

AssertionError LinuxSleepAssertions::errorFor(AssertionType type) const {
  AssertionError error;
  for (const auto& part : parts_) {
    if (!serves(part, type)) continue;
    const auto status = part.inhibitor->status();
    if (!error.detail.empty()) error.detail += "; ";
    error.detail += status.name + ": " + status.detail;
    if (!part.inhibitor->isSettled()) {
      error.detail += part.inhibitor->isOffered() ? sentence("no answer in time") : "";
      error.fault = AssertionFault::timedOut;
    } else if (const auto& failure = part.inhibitor->failure()) {
      if (failure->isDenied()) error.fault = AssertionFault::denied;
      if (failure->isTimeout()) error.fault = AssertionFault::timedOut;
    }
  }
  return error;
}

std::expected<AssertionHandle, AssertionError> LinuxSleepAssertions::create(AssertionType type,
                                                                            std::string_view name) {
  const auto deadline = std::chrono::steady_clock::now() + longestWait;
  const auto settled = [&] { return isSettled(type); };
  // Which mechanisms are here must be known before the right ones can be asked.
  BusConnection::waitFor({systemBus_.get(), sessionBus_.get()}, settled, deadline);
  if (++lastHandle_ == 0) ++lastHandle_;
  const auto handle = lastHandle_;
  handles_.emplace(handle, Handle{type, std::string(name)});
  applyWishes();
  BusConnection::waitFor({systemBus_.get(), sessionBus_.get()}, settled, deadline);
  if (isHeld(type)) {
    announced_ = mechanisms();
    return handle;
  }
  auto error = errorFor(type);
  release(handle);
  return std::unexpected(std::move(error));
}

void LinuxSleepAssertions::release(AssertionHandle handle) {
  if (handles_.erase(handle) == 0) return;
  applyWishes();
  announced_ = mechanisms();
}

std::vector<MechanismStatus> LinuxSleepAssertions::mechanisms() const {
  // Where two parts belong to one mechanism, the one that has more to tell speaks for it.
  const auto weight = [](const MechanismStatus& status) {
    switch (status.state) {
      case MechanismState::refused:
        return 3;
      case MechanismState::granted:
        return 2;
      case MechanismState::available:
        return 1;
      case MechanismState::missing:
        return 0;
    }
    return 0;
  };
  std::vector<MechanismStatus> result;
  for (const auto& part : parts_) {
    auto status = part.inhibitor->status();
    if (result.empty() || result.back().name != status.name) {
      result.push_back(std::move(status));
    } else if (weight(status) > weight(result.back())) {
      result.back() = std::move(status);
    }
  }
  return result;
}

/// May run while `create` waits; what follows is posted.
void LinuxSleepAssertions::inhibitorChanged() {
  if (std::exchange(*announcing_, true)) return;
  queue_->post([this, weak = std::weak_ptr(announcing_)] {
    const auto announcing = weak.lock();
    if (!announcing) return;  // This object is gone.
    *announcing = false;
    applyWishes();
    announceChanges();
  });
}

void LinuxSleepAssertions::announceChanges() {
  auto now = mechanisms();
  if (now == announced_) return;
  announced_ = std::move(now);
  if (onMechanismsChanged) onMechanismsChanged();
}

}  // namespace vimbrel
