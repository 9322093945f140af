// SPDX-License-Identifier: Apache-2.0
#include "System/GlobalShortcutController.h"

#include "Support/Sentence.h"

namespace vimbrel {

void GlobalShortcutController::start() {
  stop();
  refusal_.clear();
  if (!shortcut_) {
    refusal_ = sentence("there is no desktop whose keys could be watched");
    return;
  }
  shortcut_->onRefused = [weak = weak_from_this()](const std::string& reason) {
    if (const auto self = weak.lock()) self->refuse(reason);
  };
  auto watch = shortcut_->watch([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->logger_.info("Global shortcut Option+Command+L triggered");
    if (self->onToggleRequested_) self->onToggleRequested_();
  });
  if (!watch) return refuse(watch.error());
  watch_ = std::move(*watch);
  logger_.info("Global shortcut monitor registered for Option+Command+L");
}

void GlobalShortcutController::refuse(const std::string& reason) {
  watch_.reset();
  refusal_ = reason;
  logger_.info("Global shortcut not available: %s", refusal_.c_str());
}

}  // namespace vimbrel
