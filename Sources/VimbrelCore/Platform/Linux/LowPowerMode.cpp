// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LowPowerMode.h"

#include <utility>

#include "Platform/Linux/SmallFile.h"

namespace vimbrel {
namespace {

struct Daemon {
  const char* name;
  const char* path;
};
// The newer name first; while both are owned they tell the same.
constexpr Daemon daemons[] = {
    {"org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles"},
    {"net.hadess.PowerProfiles", "/net/hadess/PowerProfiles"},
};

}  // namespace

LowPowerMode::LowPowerMode(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
                           std::string sysRoot, std::function<void()> changed)
    : profileFile_(std::move(sysRoot) + "/firmware/acpi/platform_profile") {
  state_->changed = std::move(changed);
  for (std::size_t i = 0; i < std::size(daemons); ++i) {
    const auto& daemon = daemons[i];
    const auto store = [weak = std::weak_ptr(state_), queue, i](Answer answer) {
      const auto state = weak.lock();
      if (!state || state->answers[i].exchange(answer) == answer) return;
      queue->post([weak] {
        if (const auto alive = weak.lock()) alive->changed();
      });
    };
    const auto ask = [store, bus = std::weak_ptr(systemBus), daemon] {
      const auto connection = bus.lock();
      if (!connection) return;
      connection->getProperty(daemon.name, daemon.path, daemon.name, "ActiveProfile",
                              [store](BusReply reply) {
                                if (!reply || !reply->enter('v', "s")) return store(Answer::none);
                                store(reply->readString() == "power-saver" ? Answer::saving : Answer::normal);
                              });
    };
    subscriptions_.push_back(systemBus->watchName(daemon.name, [store, ask](const std::string& owner) {
      if (owner.empty()) return store(Answer::none);
      ask();
    }));
    subscriptions_.push_back(systemBus->onSignal(
        {daemon.name, daemon.path, "org.freedesktop.DBus.Properties", "PropertiesChanged"}, ask));
  }
}

bool LowPowerMode::isEnabled() const {
  bool told = false;
  for (const auto& answer : state_->answers) {
    const auto known = answer.load();
    if (known == Answer::saving) return true;
    told = told || known == Answer::normal;
  }
  return !told && readSmallFile(profileFile_) == "low-power";
}

}  // namespace vimbrel
