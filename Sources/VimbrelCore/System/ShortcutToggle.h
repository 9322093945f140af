// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "System/CoordinatorService.h"
#include "System/GlobalShortcutController.h"

namespace vimbrel {

/// Watches the global shortcut for as long as the coordinator runs. Queue: the main queue.
class ShortcutToggle final : public CoordinatorService {
 public:
  explicit ShortcutToggle(std::shared_ptr<GlobalShortcutController> controller)
      : controller_(std::move(controller)) {}
  void didStartIntake() override { controller_->start(); }
  void didStopIntake() override { controller_->stop(); }

 private:
  const std::shared_ptr<GlobalShortcutController> controller_;
};

}  // namespace vimbrel
