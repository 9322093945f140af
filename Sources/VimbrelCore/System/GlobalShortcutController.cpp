// SPDX-License-Identifier: Apache-2.0
#include "System/GlobalShortcutController.h"

namespace vimbrel {

void GlobalShortcutController::start() {
  stop();
  refusal_.clear();
  if (!shortcut_) {
    refusal_ = "there is no desktop whose keys could be watched";
    return;
  }
  auto watch = shortcut_->watch([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->logger_.info("Global shortcut Option+Command+L triggered");
    if (self->onToggleRequested_) self->onToggleRequested_();
  });
  if (!watch) {
    refusal_ = watch.error();
    logger_.info("Global shortcut not available: %s", refusal_.c_str());
    return;
  }
  watch_ = std::move(*watch);
  logger_.info("Global shortcut monitor registered for Option+Command+L");
}

}  // namespace vimbrel
