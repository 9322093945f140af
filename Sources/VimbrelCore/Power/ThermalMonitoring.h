// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "Domain/ThermalState.h"

namespace vimbrel {

/// The thermal pressure as last read. Reads are from a cache under the monitor's own lock: any thread.
class ThermalMonitoring {
 public:
  using ChangeCallback = std::function<void(SystemThermalState)>;

  virtual ~ThermalMonitoring() = default;
  [[nodiscard]] virtual SystemThermalState currentThermalState() const = 0;
  /// Replaces the callback, which arrives on the main queue with no lock held. Set it before `start`.
  virtual void setOnThermalStateChanged(ChangeCallback callback) = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
};

}  // namespace vimbrel
