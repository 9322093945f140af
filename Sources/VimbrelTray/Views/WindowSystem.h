// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vimbrel::desktop {

/// Whether an X11 selection has an owner; no on other window systems. Asks the display and waits for it.
[[nodiscard]] bool hasSelectionOwner(const char* name);

/// Whether windows may be transparent.
[[nodiscard]] bool isComposited();

/// Whether a window may choose its place on the screen. On Wayland the compositor alone does.
[[nodiscard]] bool canPlaceWindows();

}  // namespace vimbrel::desktop
