// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

#include "Platform/LoginItem.h"
#include "Support/Log.h"

namespace vimbrel {

/// Registers the application to start at login. Queue: the main queue.
class LaunchAtLoginController {
 public:
  explicit LaunchAtLoginController(std::shared_ptr<LoginItem> item) : item_(std::move(item)) {}

  [[nodiscard]] LoginItemStatus status() const { return item_->status(); }
  [[nodiscard]] bool isEnabled() const { return item_->status() == LoginItemStatus::enabled; }
  [[nodiscard]] std::string_view statusDescription() const;
  /// True on success, and when nothing needed doing.
  bool setEnabled(bool enabled);

 private:
  const std::shared_ptr<LoginItem> item_;
  const Logger logger_{"launchAtLogin"};
};

}  // namespace vimbrel
