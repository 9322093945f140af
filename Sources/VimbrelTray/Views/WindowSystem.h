// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace vimbrel::desktop {

/// Whether an X11 selection has an owner; no on other window systems. Asks the display and waits for it.
[[nodiscard]] bool hasSelectionOwner(const char* name);

/// Whether windows may be transparent.
[[nodiscard]] bool isComposited();

/// Gives a window of an X11 display the keyboard, past a window manager that does not: whoever clicks an item
/// in a panel wants what it opens, but the panel does not pass the click on.
void takeInputFocus(std::uintptr_t window);

/// Whether a window may choose its place on the screen. On Wayland the compositor alone does.
[[nodiscard]] bool canPlaceWindows();

}  // namespace vimbrel::desktop
