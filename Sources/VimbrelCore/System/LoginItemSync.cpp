// SPDX-License-Identifier: Apache-2.0
#include "System/LoginItemSync.h"

namespace vimbrel {

void LoginItemSync::willStart() {
  apply();
  changed_ = settings_->objectWillChange().subscribe([weak = weak_from_this(), queue = mainQueue_] {
    queue->post([weak] {
      if (const auto self = weak.lock()) self->apply();
    });
  });
}

void LoginItemSync::apply() {
  const bool wanted = settings_->launchAtLogin();
  if (applied_ == wanted) return;
  const bool isStart = !std::exchange(applied_, wanted).has_value();
  // What the user switched off elsewhere is not switched on behind their back at every start.
  if (isStart && controller_->status() == LoginItemStatus::requiresApproval) return;
  (void)controller_->setEnabled(wanted);  // A failure is logged there, and doctor reports it.
}

}  // namespace vimbrel
