// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>

#include "Support/TaskQueue.h"
#include "System/CoordinatorService.h"
#include "System/LaunchAtLoginController.h"
#include "System/SettingsStore.h"

namespace vimbrel {

/// Carries the setting "launchAtLogin" out, at the start and at each change of it. An entry that the user
/// switched off in the desktop's own dialogs stays off until the setting is changed. Queue: the main queue.
class LoginItemSync final : public CoordinatorService, public std::enable_shared_from_this<LoginItemSync> {
 public:
  LoginItemSync(std::shared_ptr<SettingsStore> settings, std::shared_ptr<LaunchAtLoginController> controller,
                std::shared_ptr<TaskQueue> mainQueue)
      : settings_(std::move(settings)),
        controller_(std::move(controller)),
        mainQueue_(std::move(mainQueue)) {}

  void willStart() override;
  void didStop() override { changed_.reset(); }

 private:
  void apply();

  const std::shared_ptr<SettingsStore> settings_;
  const std::shared_ptr<LaunchAtLoginController> controller_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  std::optional<bool> applied_;
  Token changed_;
};

}  // namespace vimbrel
