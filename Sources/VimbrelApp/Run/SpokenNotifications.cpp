// SPDX-License-Identifier: Apache-2.0
#include "Run/SpokenNotifications.h"

#include <utility>

#include "Say.h"

namespace vimbrel {

SpokenNotifications::SpokenNotifications(std::shared_ptr<NotificationCenter> shown)
    : shown_(std::move(shown)) {
  shown_->onAction = [this](const std::string& identifier, const std::string& action) {
    if (onAction) onAction(identifier, action);
  };
}

SpokenNotifications::~SpokenNotifications() { shown_->onAction = nullptr; }

void SpokenNotifications::post(const Notification& notification, Completion completion) {
  auto told = notification;
  told.title = retell(told.title);
  told.body = retell(told.body);
  for (auto& action : told.actions) action.label = retell(action.label);
  shown_->post(told, std::move(completion));
}

}  // namespace vimbrel
