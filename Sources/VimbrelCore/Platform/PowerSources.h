// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// The platform's description of one power source. A field that the platform does not give is absent.
struct PowerSourceDescription {
  std::optional<std::string> powerSourceState;  ///< "AC Power" or "Battery Power": what the machine runs from
  std::optional<bool> isCharging;
  std::optional<std::int64_t> currentCapacity;  ///< in the unit of `maxCapacity`
  std::optional<std::int64_t> maxCapacity;
  std::optional<std::int64_t> timeToEmptyMinutes;
  bool operator==(const PowerSourceDescription&) const = default;
};

/// Batteries, mains power and the low-power mode.
class PowerSources {
 public:
  virtual ~PowerSources() = default;

  /// The sources that the machine can run from; empty on a machine without a battery, and when nothing can be
  /// read. Any thread; may read a few small files.
  [[nodiscard]] virtual std::vector<PowerSourceDescription> read() = 0;
  /// Any thread.
  [[nodiscard]] virtual bool isLowPowerModeEnabled() = 0;

  /// Calls `changed` on the main queue whenever a power source may have changed, until the token is dropped.
  /// An empty token when changes cannot be observed.
  [[nodiscard]] virtual Token watch(std::function<void()> changed) = 0;
};

}  // namespace vimbrel
