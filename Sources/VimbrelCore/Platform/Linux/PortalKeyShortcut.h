// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Platform/KeyShortcut.h"
#include "Platform/Linux/BusConnection.h"

namespace vimbrel {

/// The global shortcut through the desktop portal (org.freedesktop.portal.GlobalShortcuts), which is how
/// Wayland desktops give one. The desktop asks the user, who may choose other keys. Refusals come through
/// `onRefused`. Queue: the main queue.
class PortalKeyShortcut final : public KeyShortcut {
 public:
  explicit PortalKeyShortcut(std::shared_ptr<BusConnection> sessionBus) : bus_(std::move(sessionBus)) {}

  /// Waits for the portal to appear, however late, and binds the shortcut anew when it was restarted.
  [[nodiscard]] std::expected<Token, std::string> watch(std::function<void()> pressed) override;

 private:
  struct Session;
  const std::shared_ptr<BusConnection> bus_;
  const std::shared_ptr<unsigned> sessions_ = std::make_shared<unsigned>(0);
};

}  // namespace vimbrel
