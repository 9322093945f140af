// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/BusConnection.h"
#include "Platform/Linux/LowPowerMode.h"
#include "Platform/PowerSources.h"
#include "Support/Published.h"

namespace vimbrel {

/// The kernel's power supplies, all batteries as one source. The kernel's change events are followed through
/// udev; because some drivers send none, the supplies are also read again every 30 seconds, on the process's
/// shared tick. Watchers are called only when something that they can see is different.
class SysfsPowerSources final : public PowerSources {
 public:
  /// `sysRoot` is "/sys".
  SysfsPowerSources(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
                    std::string sysRoot);
  ~SysfsPowerSources() override;

  [[nodiscard]] std::vector<PowerSourceDescription> read() override;
  [[nodiscard]] bool isLowPowerModeEnabled() override;
  [[nodiscard]] Token watch(std::function<void()> changed) override;

 private:
  struct Monitor;

  void compare();

  const std::shared_ptr<TaskQueue> queue_;
  const std::string directory_;
  ChangeSignal changed_;
  std::vector<PowerSourceDescription> seen_;
  bool seenLowPower_ = false;
  std::unique_ptr<Monitor> monitor_;  // from the first watch on
  LowPowerMode lowPowerMode_;
  Token tick_;
};

}  // namespace vimbrel
