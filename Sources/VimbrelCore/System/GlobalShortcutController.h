// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/KeyShortcut.h"
#include "Support/Log.h"

namespace vimbrel {

/// Watches for Option+Command+L and calls one callback when it sees it. Queue: the main queue.
class GlobalShortcutController : public std::enable_shared_from_this<GlobalShortcutController> {
 public:
  /// `shortcut` may be null where there is no keyboard to watch.
  explicit GlobalShortcutController(std::shared_ptr<KeyShortcut> shortcut) : shortcut_(std::move(shortcut)) {}

  void setOnToggleRequested(std::function<void()> handler) { onToggleRequested_ = std::move(handler); }
  /// Starting twice watches once.
  void start();
  void stop() { watch_.reset(); }
  [[nodiscard]] bool isMonitoring() const { return static_cast<bool>(watch_); }
  /// Why the shortcut is not watched; empty when it is, or was never started.
  [[nodiscard]] const std::string& refusal() const { return refusal_; }

 private:
  void refuse(const std::string& reason);

  const std::shared_ptr<KeyShortcut> shortcut_;
  std::function<void()> onToggleRequested_;
  Token watch_;
  std::string refusal_;
  const Logger logger_{"shortcut"};
};

}  // namespace vimbrel
