// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/SysfsPowerSources.h"

#include <libudev.h>

#include <utility>

#include "Platform/Linux/PowerSupplyReading.h"

namespace vimbrel {

using namespace std::chrono_literals;

/// The kernel's events about power supplies, as udev passes them on.
struct SysfsPowerSources::Monitor {
  Monitor(TaskQueue& queue, std::function<void()> changed) {
    context.reset(udev_new());
    if (!context) return;
    monitor.reset(udev_monitor_new_from_netlink(context.get(), "udev"));
    if (!monitor) return;
    udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "power_supply", nullptr);
    if (udev_monitor_enable_receiving(monitor.get()) < 0) return;
    watch = queue.watchReadable(udev_monitor_get_fd(monitor.get()), [this, changed = std::move(changed)] {
      // Several supplies change together when a plug is pulled: one look serves all.
      while (auto* device = udev_monitor_receive_device(monitor.get())) udev_device_unref(device);
      changed();
    });
  }

  struct Unref {
    void operator()(udev* object) const { udev_unref(object); }
    void operator()(udev_monitor* object) const { udev_monitor_unref(object); }
  };
  std::unique_ptr<udev, Unref> context;
  std::unique_ptr<udev_monitor, Unref> monitor;
  Token watch;
};

SysfsPowerSources::SysfsPowerSources(std::shared_ptr<TaskQueue> queue,
                                     std::shared_ptr<BusConnection> systemBus, std::string sysRoot)
    : queue_(std::move(queue)),
      directory_(sysRoot + "/class/power_supply"),
      lowPowerMode_(queue_, std::move(systemBus), std::move(sysRoot), [this] {
        if (tick_) compare();
      }) {}

SysfsPowerSources::~SysfsPowerSources() = default;

std::vector<PowerSourceDescription> SysfsPowerSources::read() {
  auto source = combinePowerSupplies(readPowerSupplies(directory_));
  if (!source) return {};
  return {std::move(*source)};
}

bool SysfsPowerSources::isLowPowerModeEnabled() { return lowPowerMode_.isEnabled(); }

Token SysfsPowerSources::watch(std::function<void()> changed) {
  if (!tick_) {
    seen_ = read();
    seenLowPower_ = isLowPowerModeEnabled();
    monitor_ = std::make_unique<Monitor>(*queue_, [this] { compare(); });
    tick_ = queue_->every(30s, 30s, TimerPrecision::shared, [this] { compare(); });
  }
  return changed_.subscribe(std::move(changed));
}

void SysfsPowerSources::compare() {
  auto now = read();
  const bool lowPower = isLowPowerModeEnabled();
  if (now == seen_ && lowPower == seenLowPower_) return;
  seen_ = std::move(now);
  seenLowPower_ = lowPower;
  changed_.send();
}

}  // namespace vimbrel
