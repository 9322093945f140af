// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

#include "Domain/VimbrelVisualState.h"
#include "Domain/WakeDecision.h"

namespace vimbrel {

/// Everything a surface needs for one drawing.
struct VimbrelDisplayState {
  VimbrelVisualState visualState = VimbrelVisualState::idle;
  std::int64_t activeWorkingAgentCount = 0;
  std::int64_t totalActiveSessionsCount = 0;
  WakeDecision decision = WakeDecision::release("Initializing");
  std::optional<std::int64_t> batteryPercent;  ///< absent without a battery
  bool isCharging = false;
  bool isOnAC = true;
  bool isPaused = false;
  std::optional<double> pauseRemainingSeconds;  ///< absent when not paused
  bool lidHoldActive = false;                   ///< the closed-lid hold is engaged
  double elapsedProtectionSeconds = 0;
  bool operator==(const VimbrelDisplayState&) const = default;
};

}  // namespace vimbrel
