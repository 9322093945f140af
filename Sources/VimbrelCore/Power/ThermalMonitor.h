// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Platform/ThermalPressure.h"
#include "Power/MonitorState.h"
#include "Power/ThermalMonitoring.h"
#include "Support/Log.h"

namespace vimbrel {

/// Keeps the latest thermal state, read by the constructor, by `start` and at every notification of the
/// platform. Every notification is passed on, whether or not the state changed.
class ThermalMonitor final : public ThermalMonitoring {
 public:
  explicit ThermalMonitor(std::shared_ptr<ThermalPressure> pressure);
  ~ThermalMonitor() override;
  ThermalMonitor(const ThermalMonitor&) = delete;
  ThermalMonitor& operator=(const ThermalMonitor&) = delete;

  [[nodiscard]] SystemThermalState currentThermalState() const override;
  void setOnThermalStateChanged(ChangeCallback callback) override;
  void start() override;
  void stop() override;

 private:
  const std::shared_ptr<ThermalPressure> pressure_;
  const Logger logger_{"thermal"};
  const std::shared_ptr<MonitorState<SystemThermalState>> state_;
};

}  // namespace vimbrel
