// SPDX-License-Identifier: Apache-2.0
#include "Power/BatteryMonitor.h"

#include <algorithm>
#include <utility>

namespace vimbrel {
namespace {

/// The charge in percent, its fraction dropped.
std::optional<std::int64_t> percentOf(const PowerSourceDescription& source) {
  const auto maximum = source.maxCapacity.value_or(100);
  if (!source.currentCapacity || maximum < 1) return std::nullopt;
  const double percent = static_cast<double>(*source.currentCapacity) / static_cast<double>(maximum) * 100.0;
  constexpr double bound = 1e15;  // An absurd quotient must not leave the range of the conversion.
  return static_cast<std::int64_t>(std::clamp(percent, -bound, bound));
}

PowerSourceSnapshot readSnapshot(PowerSources& platform) {
  const auto sources = platform.read();
  if (sources.empty()) return PowerSourceSnapshot::desktopDefault();
  const auto& source = sources.front();
  PowerSourceSnapshot snapshot;
  snapshot.batteryPercent = percentOf(source);
  snapshot.isOnAC = source.powerSourceState == "AC Power";
  snapshot.isCharging = source.isCharging.value_or(false);
  if (source.timeToEmptyMinutes.value_or(0) >= 1) snapshot.timeRemainingMinutes = source.timeToEmptyMinutes;
  snapshot.isLowPowerMode = platform.isLowPowerModeEnabled();
  return snapshot;
}

}  // namespace

BatteryMonitor::BatteryMonitor(std::shared_ptr<PowerSources> sources)
    : sources_(std::move(sources)),
      state_(std::make_shared<MonitorState<PowerSourceSnapshot>>(readSnapshot(*sources_))) {}

BatteryMonitor::~BatteryMonitor() { stop(); }

PowerSourceSnapshot BatteryMonitor::currentSnapshot() const { return state_->value(); }

void BatteryMonitor::setOnPowerSourceChanged(ChangeCallback callback) {
  state_->setCallback(std::move(callback));
}

PowerSourceSnapshot BatteryMonitor::queryPowerSource() const { return readSnapshot(*sources_); }

void BatteryMonitor::start() {
  if (state_->isObserving()) return;
  auto changed = [weak = std::weak_ptr(state_), sources = sources_, logger = logger_] {
    const auto state = weak.lock();
    if (!state) return;
    const auto snapshot = readSnapshot(*sources);
    state->store(snapshot);
    logger.debug("Power source changed: isOnAC=%s percent=%lld%%", snapshot.isOnAC ? "true" : "false",
                 static_cast<long long>(snapshot.batteryPercent.value_or(-1)));
    state->announce(snapshot);
  };
  if (state_->observe(sources_->watch(std::move(changed)))) {
    logger_.info("Battery monitor started observing power sources");
  }
  state_->store(queryPowerSource());
}

void BatteryMonitor::stop() {
  if (state_->endObservation()) logger_.info("Battery monitor stopped");
}

}  // namespace vimbrel
