// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Platform/KeyShortcut.h"

namespace vimbrel {

/// The global shortcut by a key grab on an X11 display: Alt+Super+L, whatever of Caps Lock, Num Lock, Shift
/// and Control is on besides. libxcb is loaded when the shortcut is watched. Queue: the one given.
class X11KeyShortcut final : public KeyShortcut {
 public:
  /// `display` as in $DISPLAY.
  X11KeyShortcut(std::string display, std::shared_ptr<TaskQueue> queue)
      : display_(std::move(display)), queue_(std::move(queue)) {}

  /// Connects and grabs. Waits for the display's answers, which come at once.
  [[nodiscard]] std::expected<Token, std::string> watch(std::function<void()> pressed) override;

 private:
  struct Grab;
  const std::string display_;
  const std::shared_ptr<TaskQueue> queue_;
};

}  // namespace vimbrel
