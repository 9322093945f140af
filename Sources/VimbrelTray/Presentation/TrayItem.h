// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Domain/VimbrelVisualState.h"
#include "Presentation/Link.h"

namespace vimbrel::desktop {

/// What a menu entry does.
enum class MenuAction : std::uint8_t {
  none,  ///< a line that only informs
  pauseQuarterHour,
  pauseHour,
  pauseUntilTomorrow,
  resume,
  toggleManualHold,
  toggleMaster,
  startApplication,
  open,
  history,
  agents,
  settings,
  diagnostics,
  introduction,
  quit,
};

struct MenuEntry {
  enum class Kind : std::uint8_t { item, check, separator, submenu };
  Kind kind = Kind::item;
  MenuAction action = MenuAction::none;
  std::string text;
  bool isEnabled = true;
  bool isChecked = false;
  std::vector<MenuEntry> children;  ///< of a submenu
  bool operator==(const MenuEntry&) const = default;
};

/// The menu-bar item: its picture, its tooltip and its menu.
struct TrayItem {
  VimbrelVisualState visual = VimbrelVisualState::idle;
  bool isAbsent = false;          ///< the application is not running: drawn without colour
  bool isPaused = false;          ///< marked as such
  std::int64_t workingCount = 0;  ///< shown from 1 upwards
  std::string title;              ///< one line; also the accessible name
  std::string detail;             ///< second line of the tooltip; may be empty
  std::vector<MenuEntry> menu;
  bool operator==(const TrayItem&) const = default;
};

[[nodiscard]] TrayItem makeTrayItem(const Situation& situation, Instant now);

}  // namespace vimbrel::desktop
