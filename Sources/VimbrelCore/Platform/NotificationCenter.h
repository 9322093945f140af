// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <vector>

namespace vimbrel {

enum class NotificationUrgency : std::uint8_t { low, normal, critical };

struct NotificationAction {
  std::string key;    ///< comes back when the user chooses it
  std::string label;  ///< what the user reads
  bool operator==(const NotificationAction&) const = default;
};

struct Notification {
  std::string identifier;  ///< a later notification with the same identifier replaces this one
  std::string title;
  std::string body;
  NotificationUrgency urgency = NotificationUrgency::normal;
  std::vector<NotificationAction> actions;
  bool operator==(const Notification&) const = default;
};

/// The desktop's notification service. Queue: the main queue; nothing here waits for the service.
class NotificationCenter {
 public:
  using Completion = std::function<void(const std::expected<void, std::string>&)>;

  virtual ~NotificationCenter() = default;
  /// False when nobody shows notifications here (no desktop, or no service); asked before each use.
  [[nodiscard]] virtual bool isAvailable() = 0;
  /// Asks for leave to show notifications; the answer, or why it cannot be had, on the main queue.
  virtual void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) = 0;
  /// Shows it at once. `completion` tells on the main queue how that went; the error is a sentence.
  virtual void post(const Notification& notification, Completion completion) = 0;

  /// Called on the main queue when the user chooses an action.
  std::function<void(const std::string& identifier, const std::string& actionKey)> onAction;
};

}  // namespace vimbrel
