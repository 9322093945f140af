// SPDX-License-Identifier: Apache-2.0
// Runs inside rig.sh; each suite names in CMakeLists.txt the parts that it needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include "Component/Rig.h"
#include "Platform/Linux/BusNotificationCenter.h"
#include "Platform/Linux/PortalKeyShortcut.h"
#include "Platform/Linux/X11KeyShortcut.h"

namespace vimbrel {
namespace {

using testing::HasSubstr;

std::string run(const std::string& program, const std::vector<std::string>& arguments) {
  const auto result = runProgram(program, arguments, {.maximumOutputBytes = 262144});
  return result ? result->output : "";
}
std::string dunst(const std::vector<std::string>& arguments) { return run("/usr/bin/dunstctl", arguments); }
void press(const std::vector<std::string>& keys) {
  std::vector<std::string> arguments{"key"};
  arguments.insert(arguments.end(), keys.begin(), keys.end());
  run("/usr/bin/xdotool", arguments);
}

/// What the daemon shows now, and what it showed and closed.
int shown() { return std::atoi(dunst({"count", "displayed"}).c_str()); }
std::string closeAllAndRead(EventLoop& loop) {
  dunst({"close-all"});
  EXPECT_TRUE(rig::eventually(loop, [] { return shown() == 0; }));
  return dunst({"history"});
}

TEST(Notifications, replaceOneAnotherByIdentifierAndSurviveTheServicesRestart) {
  EventLoop loop;
  const auto bus = std::make_shared<BusConnection>(BusKind::session, loop.mainQueue());
  const auto center = BusNotificationCenter::create(bus);
  ASSERT_TRUE(rig::eventually(loop, [&] { return center->isAvailable(); }));
  const auto post = [&](const std::string& identifier, const std::string& title) {
    bool posted = false;
    center->post({identifier, title, "5 < 6 & more", NotificationUrgency::critical, {}},
                 [&](const std::expected<void, std::string>& result) {
                   EXPECT_TRUE(result) << result.error();
                   posted = true;
                 });
    EXPECT_TRUE(rig::eventually(loop, [&] { return posted; }));
  };
  closeAllAndRead(loop);
  post("a", "first");
  post("a", "second");
  post("b", "third");
  EXPECT_EQ(shown(), 2);
  const auto history = closeAllAndRead(loop);
  EXPECT_THAT(history, HasSubstr("second"));
  EXPECT_THAT(history, HasSubstr("third"));
  EXPECT_THAT(history, testing::Not(HasSubstr("first")));
  EXPECT_THAT(history, HasSubstr("5 &lt; 6 &amp; more")) << "escaped for a service that reads markup";
  rig::order("restart notifications");
  ASSERT_TRUE(rig::eventually(loop, [&] { return center->isAvailable(); }));
  post("a", "fourth");
  EXPECT_EQ(shown(), 1);
  rig::order("stop notifications");
  EXPECT_TRUE(rig::eventually(loop, [&] { return !center->isAvailable(); }));
  bool failed = false;
  center->post({"a", "x", "y", NotificationUrgency::low, {}},
               [&](const std::expected<void, std::string>& result) { failed = !result; });
  EXPECT_TRUE(rig::eventually(loop, [&] { return failed; })) << "it says so instead of waiting";
  rig::order("start notifications");
}

/// Another program's window that has the keyboard, and what it is typed.
class OtherWindow {
 public:
  OtherWindow() : connection_(xcb_connect(nullptr, nullptr)) {
    const auto* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    window_ = xcb_generate_id(connection_);
    const std::uint32_t values[] = {
        1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen->root, 0, 0, 100, 100, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(connection_, window_);
    xcb_flush(connection_);
    bool isMapped = false;
    while (!isMapped) {
      auto* event = xcb_wait_for_event(connection_);
      isMapped = (event->response_type & 0x7f) == XCB_MAP_NOTIFY;
      free(event);
    }
    xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
    sync();
  }
  ~OtherWindow() { xcb_disconnect(connection_); }
  /// How many presses of this key (by its number) came since the last call.
  int presses(xcb_keycode_t key) {
    sync();
    int count = 0;
    while (auto* event = xcb_poll_for_event(connection_)) {
      if ((event->response_type & 0x7f) == XCB_KEY_PRESS) {
        count += reinterpret_cast<xcb_key_press_event_t*>(event)->detail == key ? 1 : 0;
      }
      free(event);
    }
    return count;
  }

 private:
  void sync() { free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr)); }
  xcb_connection_t* connection_;
  xcb_window_t window_ = 0;
};

constexpr xcb_keycode_t keyL = 46;  // of the layout that the display starts with

TEST(Shortcut, isSeenWhileAnotherWindowHasTheFocusWhateverLocksAreOn) {
  EventLoop loop;
  OtherWindow window;
  X11KeyShortcut shortcut(std::getenv("DISPLAY"), loop.mainQueue());
  int pressed = 0;
  auto watch = shortcut.watch([&] { ++pressed; });
  ASSERT_TRUE(watch) << watch.error();
  const auto expectPress = [&](const std::vector<std::string>& keys, const char* what) {
    const int before = pressed;
    press(keys);
    EXPECT_TRUE(rig::eventually(loop, [&] { return pressed > before; })) << what;
    EXPECT_EQ(pressed, before + 1) << what;
  };
  expectPress({"alt+super+l"}, "plain");
  expectPress({"Num_Lock", "alt+super+l"}, "with Num Lock on");
  expectPress({"Caps_Lock", "alt+super+l"}, "with both locks on");
  press({"Num_Lock", "Caps_Lock"});
  expectPress({"alt+super+shift+l"}, "with Shift");
  expectPress({"alt+super+ctrl+l"}, "with Control");
  EXPECT_EQ(window.presses(keyL), 0) << "the focused window never sees the shortcut";
  press({"l", "alt+l", "super+l", "alt+super+k"});
  EXPECT_TRUE(rig::eventually(loop, [&] { return true; }));
  EXPECT_EQ(window.presses(keyL), 3) << "other keys are not taken from it";
  EXPECT_EQ(pressed, 5);

  X11KeyShortcut second(std::getenv("DISPLAY"), loop.mainQueue());
  const auto refused = second.watch([] {});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), "another program holds Alt+Super+L on this display");
  watch = std::unexpected("");
  press({"alt+super+l"});
  EXPECT_EQ(window.presses(keyL), 1) << "the keys are given back";
  EXPECT_TRUE(second.watch([] {}));
  EXPECT_FALSE(X11KeyShortcut(":99", loop.mainQueue()).watch([] {}));
}

std::string mock(const std::string& member) {
  return rig::busCall("session", "org.freedesktop.impl.portal.desktop.mock", "/mock",
                      "org.vimbrel.Mock." + member);
}

TEST(Portal, bindsTheShortcutAndPassesItsPressesOn) {
  EventLoop loop;
  const auto bus = std::make_shared<BusConnection>(BusKind::session, loop.mainQueue());
  PortalKeyShortcut shortcut(bus);
  std::string refusal;
  shortcut.onRefused = [&](const std::string& reason) { refusal = reason; };
  int pressed = 0;
  auto watch = shortcut.watch([&] { ++pressed; });
  ASSERT_TRUE(watch);
  // The desktop presses the keys once, as soon as they are bound.
  const auto isSeenAgain = [&] {
    const int before = pressed;
    bool isPressed = false;
    return rig::eventually(loop, [&] {
      if (!isPressed) isPressed = mock("Press").contains("ALT+LOGO+l");
      return pressed == before + 1;
    });
  };
  ASSERT_TRUE(isSeenAgain()) << refusal;
  rig::order("restart portal");
  EXPECT_TRUE(isSeenAgain()) << "a portal that was restarted is asked again: " << refusal;
  watch = std::unexpected("");
  mock("Decline");
  auto declined = shortcut.watch([] {});
  ASSERT_TRUE(declined);
  EXPECT_TRUE(rig::eventually(loop, [&] { return !refusal.empty(); }));
  EXPECT_EQ(refusal, "the shortcut was declined in the desktop's dialog");
}

}  // namespace
}  // namespace vimbrel
