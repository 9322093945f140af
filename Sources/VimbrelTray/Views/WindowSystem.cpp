// SPDX-License-Identifier: Apache-2.0
#include "Views/WindowSystem.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vimbrel::desktop {
namespace {

struct Freed {
  void operator()(void* memory) const { std::free(memory); }
};

}  // namespace

bool hasSelectionOwner(const char* name) {
  const auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
  if (x11 == nullptr || x11->connection() == nullptr) return false;
  auto* connection = x11->connection();
  const auto length = static_cast<std::uint16_t>(std::strlen(name));
  const std::unique_ptr<xcb_intern_atom_reply_t, Freed> atom(
      xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, length, name), nullptr));
  if (!atom) return false;
  const std::unique_ptr<xcb_get_selection_owner_reply_t, Freed> owner(
      xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, atom->atom), nullptr));
  return owner && owner->owner != XCB_NONE;
}

bool isComposited() {
  static const bool composited =
      QGuiApplication::platformName() != "xcb" || hasSelectionOwner("_NET_WM_CM_S0");
  return composited;
}

void takeInputFocus(std::uintptr_t window) {
  const auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
  if (x11 == nullptr || x11->connection() == nullptr) return;
  xcb_set_input_focus(x11->connection(), XCB_INPUT_FOCUS_PARENT, static_cast<xcb_window_t>(window),
                      XCB_CURRENT_TIME);
  xcb_flush(x11->connection());
}

bool canPlaceWindows() { return !QGuiApplication::platformName().startsWith("wayland"); }

}  // namespace vimbrel::desktop
