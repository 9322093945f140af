// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "Domain/PowerSourceSnapshot.h"

namespace vimbrel {

/// The power situation as last read. Reads are from a cache under the monitor's own lock: any thread.
class BatteryMonitoring {
 public:
  using ChangeCallback = std::function<void(const PowerSourceSnapshot&)>;

  virtual ~BatteryMonitoring() = default;
  [[nodiscard]] virtual PowerSourceSnapshot currentSnapshot() const = 0;
  /// Replaces the callback, which arrives on the main queue with no lock held. Set it before `start`.
  virtual void setOnPowerSourceChanged(ChangeCallback callback) = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
};

}  // namespace vimbrel
