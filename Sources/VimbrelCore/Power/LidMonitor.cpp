// SPDX-License-Identifier: Apache-2.0
#include "Power/LidMonitor.h"

#include <utility>

namespace vimbrel {

LidMonitor::LidMonitor(std::shared_ptr<LidSwitch> lid)
    : lid_(std::move(lid)), state_(std::make_shared<MonitorState<bool>>(queryClamshellState())) {}

LidMonitor::~LidMonitor() { stop(); }

bool LidMonitor::isLidClosed() const { return state_->value(); }

void LidMonitor::setOnLidStateChanged(ChangeCallback callback) { state_->setCallback(std::move(callback)); }

bool LidMonitor::queryClamshellState() const { return lid_->isClosed().value_or(false); }

void LidMonitor::start() {
  const bool closed = queryClamshellState();
  state_->store(closed);
  logger_.info("Lid monitor initialized (isLidClosed: %s)", closed ? "true" : "false");
  if (state_->isObserving()) return;
  state_->observe(lid_->watch([weak = std::weak_ptr(state_), lid = lid_] {
    const auto state = weak.lock();
    if (!state) return;
    const bool now = lid->isClosed().value_or(false);
    state->store(now);
    state->announce(now);
  }));
}

void LidMonitor::stop() { state_->endObservation(); }

}  // namespace vimbrel
