// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Power/BatteryMonitoring.h"
#include "System/CoordinatorService.h"
#include "System/NotificationController.h"

namespace vimbrel {

/// Posts a notice for each step of the decision that the user should hear of. A block that is the user's own
/// doing (the master switch, a pause, AC-only) gets none.
class ProtectionNotices final : public CoordinatorService {
 public:
  ProtectionNotices(std::shared_ptr<NotificationController> notifications,
                    std::shared_ptr<BatteryMonitoring> battery)
      : notifications_(std::move(notifications)), battery_(std::move(battery)) {}

  void willStart() override { notifications_->requestAuthorization(); }
  void didApply(const WakeDecision& previous, const WakeDecision& next) override;

 private:
  const std::shared_ptr<NotificationController> notifications_;
  const std::shared_ptr<BatteryMonitoring> battery_;
};

}  // namespace vimbrel
