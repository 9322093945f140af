// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Platform/NotificationCenter.h"

namespace vimbrel {

/// A notification service whose notices are told in the user's language before they are shown.
class SpokenNotifications final : public NotificationCenter {
 public:
  explicit SpokenNotifications(std::shared_ptr<NotificationCenter> shown);
  ~SpokenNotifications() override;

  bool isAvailable() override { return shown_->isAvailable(); }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) override {
    shown_->requestAuthorization(std::move(answer));
  }
  void post(const Notification& notification, Completion completion) override;

 private:
  const std::shared_ptr<NotificationCenter> shown_;
};

}  // namespace vimbrel
