// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>

#include "Support/TaskQueue.h"
#include "System/CoordinatorService.h"
#include "System/LaunchAtLoginController.h"
#include "System/SettingsStore.h"

namespace vimbrel {

/// Keeps the setting "launchAtLogin" and the login item the same. At the start the truth lies with the item:
/// one that was installed or removed by other means sets the setting, unless the setting asks for one that
/// was never made. Afterwards each change of the setting is carried out. An entry that the user switched off
/// in the desktop's own dialogs stays off until the setting is changed. Queue: the main queue.
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
  void adopt();

  const std::shared_ptr<SettingsStore> settings_;
  const std::shared_ptr<LaunchAtLoginController> controller_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  std::optional<bool> applied_;
  Token changed_;
};

}  // namespace vimbrel
