// SPDX-License-Identifier: Apache-2.0
#include "Power/ThermalMonitor.h"

#include <utility>

namespace vimbrel {
namespace {

SystemThermalState readState(ThermalPressure& platform) {
  return systemThermalStateFromLevel(platform.level());
}

}  // namespace

ThermalMonitor::ThermalMonitor(std::shared_ptr<ThermalPressure> pressure)
    : pressure_(std::move(pressure)),
      state_(std::make_shared<MonitorState<SystemThermalState>>(readState(*pressure_))) {}

ThermalMonitor::~ThermalMonitor() { stop(); }

SystemThermalState ThermalMonitor::currentThermalState() const { return state_->value(); }

void ThermalMonitor::setOnThermalStateChanged(ChangeCallback callback) {
  state_->setCallback(std::move(callback));
}

void ThermalMonitor::start() {
  if (state_->isObserving()) return;
  state_->store(readState(*pressure_));
  auto changed = [weak = std::weak_ptr(state_), pressure = pressure_, logger = logger_] {
    const auto state = weak.lock();
    if (!state) return;
    const auto now = readState(*pressure);
    state->store(now);
    logger.info("Thermal state changed to: %s", std::string(rawValue(now)).c_str());
    state->announce(now);
  };
  if (state_->observe(pressure_->watch(std::move(changed)))) {
    logger_.info("Thermal monitor started observing thermal state");
  }
}

void ThermalMonitor::stop() {
  if (state_->endObservation()) logger_.info("Thermal monitor stopped");
}

}  // namespace vimbrel
