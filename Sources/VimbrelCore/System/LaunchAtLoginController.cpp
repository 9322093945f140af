// SPDX-License-Identifier: Apache-2.0
#include "System/LaunchAtLoginController.h"

namespace vimbrel {

std::string_view LaunchAtLoginController::statusDescription() const {
  switch (item_->status()) {
    case LoginItemStatus::notRegistered:
      return "Not Registered";
    case LoginItemStatus::enabled:
      return "Enabled";
    case LoginItemStatus::requiresApproval:
      return "Requires User Approval in System Settings";
    case LoginItemStatus::notFound:
      return "App Not Found";
  }
  return "Unknown";
}

bool LaunchAtLoginController::setEnabled(bool enabled) {
  if (isEnabled() == enabled) return true;
  const auto result = enabled ? item_->registerItem() : item_->unregisterItem();
  if (!result) {
    logger_.error("Failed to update launch at login: %s", result.error().c_str());
    return false;
  }
  logger_.info(enabled ? "Registered launch at login" : "Unregistered launch at login");
  return true;
}

}  // namespace vimbrel
