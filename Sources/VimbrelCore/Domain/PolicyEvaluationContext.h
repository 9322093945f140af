// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

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
  /// The command line of a program that runs under a hold of its own; empty when there is none.
  std::string commandHold;
  /// Whether that hold covers the closed lid whatever the setting says.
  bool commandHoldCoversLid = false;
  /// When the hold reached the longest time that is allowed without a fresh event; absent while it has not.
  std::optional<Instant> holdExpiredAt;
  Instant now{};
};

}  // namespace vimbrel
