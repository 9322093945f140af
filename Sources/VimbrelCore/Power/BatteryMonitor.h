// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Platform/PowerSources.h"
#include "Power/BatteryMonitoring.h"
#include "Power/MonitorState.h"
#include "Support/Log.h"

namespace vimbrel {

/// Keeps the latest reading of the machine's power sources, taken by the constructor, by `start` and at every
/// notification of the platform. Every notification is passed on, whether or not a value changed.
class BatteryMonitor final : public BatteryMonitoring {
 public:
  explicit BatteryMonitor(std::shared_ptr<PowerSources> sources);
  ~BatteryMonitor() override;
  BatteryMonitor(const BatteryMonitor&) = delete;
  BatteryMonitor& operator=(const BatteryMonitor&) = delete;

  [[nodiscard]] PowerSourceSnapshot currentSnapshot() const override;
  void setOnPowerSourceChanged(ChangeCallback callback) override;
  /// Begins to observe, once; where the platform cannot be observed, only the reading is refreshed.
  void start() override;
  void stop() override;

  /// Reads the platform afresh; the cache stays as it is.
  [[nodiscard]] PowerSourceSnapshot queryPowerSource() const;

 private:
  const std::shared_ptr<PowerSources> sources_;
  const Logger logger_{"battery"};
  const std::shared_ptr<MonitorState<PowerSourceSnapshot>> state_;
};

}  // namespace vimbrel
