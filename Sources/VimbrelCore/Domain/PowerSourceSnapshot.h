// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

namespace vimbrel {

/// One reading of the machine's power situation.
struct PowerSourceSnapshot {
  std::optional<std::int64_t> batteryPercent;  ///< absent: no battery, or no readable capacity
  bool isCharging = false;
  bool isOnAC = true;
  bool isLowPowerMode = false;
  std::optional<std::int64_t> timeRemainingMinutes;  ///< minutes to empty
  bool operator==(const PowerSourceSnapshot&) const = default;

  /// A machine without a battery, which counts as permanently on AC power; also what an unreadable one
  /// yields.
  static PowerSourceSnapshot desktopDefault() { return {}; }
};

}  // namespace vimbrel
