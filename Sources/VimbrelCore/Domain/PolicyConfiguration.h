// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

namespace vimbrel {

/// The user's settings as the policy reads them: within bounds, with the fixed values filled in.
struct PolicyConfiguration {
  bool masterEnabled = true;
  bool manualHoldEnabled = false;             ///< hold regardless of what agents do
  std::int64_t batteryFloorPercent = 15;      ///< 5 to 50: protection is cut at or below, on battery
  std::int64_t batteryHysteresisPercent = 3;  ///< once cut, it resumes at floor + this
  bool onlyOnAC = false;
  double releaseDebounceSeconds = 30;   ///< how long a hold outlasts the last working agent; 0 or more
  double staleSessionTTLSeconds = 900;  ///< a session silent for longer than this no longer counts
  bool deepLidProtectionEnabled = true;
  /// An agent that has waited for its user for longer than this no longer counts; absent: it always does.
  std::optional<double> waitingGraceSeconds;
  /// After this, a hold goes on only with a fresh event of an agent; absent: as long as there is a reason.
  std::optional<double> maximumHoldSeconds;
  bool operator==(const PolicyConfiguration&) const = default;
};

}  // namespace vimbrel
