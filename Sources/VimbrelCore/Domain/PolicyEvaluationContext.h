// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "Domain/PolicyConfiguration.h"
#include "Domain/PowerSourceSnapshot.h"
#include "Domain/SessionSnapshot.h"
#include "Domain/ThermalState.h"
#include "Support/Instant.h"

namespace vimbrel {

/// Everything one decision depends on. Times are measured against `now`, never against a clock.
struct PolicyEvaluationContext {
  PolicyConfiguration config;
  SessionSnapshot sessions;
  PowerSourceSnapshot powerSource;
  SystemThermalState thermalState = SystemThermalState::nominal;
  std::optional<Instant> pauseUntil;
  std::optional<Instant> lastActiveAgentStoppedAt;
  /// True from a battery cut-off until AC power or floor + hysteresis; selects the threshold.
  bool isCurrentlyBatteryBlocked = false;
  Instant now{};
};

}  // namespace vimbrel
