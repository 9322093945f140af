// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <functional>
#include <string>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// The global shortcut Option+Command+L, which is Alt+Super+L on keyboards that name their keys so. It works
/// while any program has the focus, with Caps Lock and Num Lock on or off. Queue: the main queue.
class KeyShortcut {
 public:
  virtual ~KeyShortcut() = default;
  /// Calls `pressed` on the main queue at every press until the token is dropped. The error says why the
  /// desktop refused: another program holds the keys, or it has no global shortcuts.
  [[nodiscard]] virtual std::expected<Token, std::string> watch(std::function<void()> pressed) = 0;

  /// Called on the main queue with the reason when the desktop refuses only after `watch` has returned.
  std::function<void(const std::string& reason)> onRefused;
};

}  // namespace vimbrel
