// SPDX-License-Identifier: Apache-2.0
#include "System/ProtectionNotices.h"

#include <algorithm>

namespace vimbrel {

void ProtectionNotices::didApply(const WakeDecision& previous, const WakeDecision& next) {
  if (const auto* hold = next.asHold()) {
    // The debounce and a manual hold count no agents; the notice speaks of at least one.
    if (!previous.isHolding()) {
      notifications_->notifyProtectionStarted(std::max<std::int64_t>(hold->activeAgentCount, 1));
    }
    return;
  }
  if (!previous.isHolding()) return;
  const auto* blocked = next.asBlocked();
  if (blocked == nullptr) return notifications_->notifyProtectionFinished();
  if (blocked->block == SafetyBlock::thermalCritical) return notifications_->notifyThermalCutoff();
  if (blocked->block == SafetyBlock::batteryBelowFloor) {
    if (const auto percent = battery_->currentSnapshot().batteryPercent)
      notifications_->notifyBatteryCutoff(*percent);
  }
}

}  // namespace vimbrel
