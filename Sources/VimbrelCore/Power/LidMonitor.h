// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Platform/LidSwitch.h"
#include "Power/LidMonitoring.h"
#include "Power/MonitorState.h"
#include "Support/Log.h"

namespace vimbrel {

/// Knows whether the lid is closed: read by the constructor, by `start`, and whenever the platform reports
/// that it was opened or closed. A machine without a lid counts as open.
class LidMonitor final : public LidMonitoring {
 public:
  explicit LidMonitor(std::shared_ptr<LidSwitch> lid);
  ~LidMonitor() override;
  LidMonitor(const LidMonitor&) = delete;
  LidMonitor& operator=(const LidMonitor&) = delete;

  [[nodiscard]] bool isLidClosed() const override;
  void setOnLidStateChanged(ChangeCallback callback) override;
  void start() override;
  void stop() override;

  /// Reads the platform afresh; the cache stays as it is.
  [[nodiscard]] bool queryClamshellState() const;

 private:
  const std::shared_ptr<LidSwitch> lid_;
  const Logger logger_{"lid"};
  const std::shared_ptr<MonitorState<bool>> state_;
};

}  // namespace vimbrel
