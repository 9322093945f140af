// SPDX-License-Identifier: Apache-2.0
#include "System/LoginItemSync.h"

namespace vimbrel {

void LoginItemSync::willStart() {
  adopt();
  changed_ = settings_->objectWillChange().subscribe([weak = weak_from_this(), queue = mainQueue_] {
    queue->post([weak] {
      if (const auto self = weak.lock()) self->apply();
    });
  });
}

void LoginItemSync::adopt() {
  const bool wanted = settings_->launchAtLogin();
  const auto status = controller_->status();
  if (!wanted && status == LoginItemStatus::enabled) (void)settings_->setLaunchAtLogin(true);
  if (wanted && status != LoginItemStatus::enabled && status != LoginItemStatus::requiresApproval) {
    (void)controller_->setEnabled(true);
  }
  applied_ = settings_->launchAtLogin();
}

void LoginItemSync::apply() {
  const bool wanted = settings_->launchAtLogin();
  if (std::exchange(applied_, wanted) == wanted) return;
  (void)controller_->setEnabled(wanted);  // A failure is logged there, and the setting can be tried again.
}

}  // namespace vimbrel
