// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/X11KeyShortcut.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <vector>

#include "Platform/Linux/SharedLibrary.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

constexpr xcb_keysym_t lowerL = 0x006c;     // XK_l
constexpr xcb_keysym_t numLock = 0xff7f;    // XK_Num_Lock
constexpr xcb_keysym_t leftAlt = 0xffe9;    // XK_Alt_L
constexpr xcb_keysym_t leftSuper = 0xffeb;  // XK_Super_L
constexpr std::uint8_t accessDenied = 10;   // BadAccess: another client has the grab
constexpr unsigned modifierCount = 8;

struct Freed {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename Reply>
using Owned = std::unique_ptr<Reply, Freed>;

/// What of libxcb is used.
struct Xcb {
  SharedLibrary library{"libxcb.so.1"};
#define VIMBREL_XCB(name) \
  decltype(::xcb_##name)* const name = library.function<decltype(::xcb_##name)>("xcb_" #name)
  VIMBREL_XCB(connect);
  VIMBREL_XCB(connection_has_error);
  VIMBREL_XCB(disconnect);
  VIMBREL_XCB(flush);
  VIMBREL_XCB(get_file_descriptor);
  VIMBREL_XCB(get_keyboard_mapping);
  VIMBREL_XCB(get_keyboard_mapping_keysyms);
  VIMBREL_XCB(get_keyboard_mapping_reply);
  VIMBREL_XCB(get_modifier_mapping);
  VIMBREL_XCB(get_modifier_mapping_keycodes);
  VIMBREL_XCB(get_modifier_mapping_reply);
  VIMBREL_XCB(get_setup);
  VIMBREL_XCB(grab_key_checked);
  VIMBREL_XCB(poll_for_event);
  VIMBREL_XCB(request_check);
  VIMBREL_XCB(setup_roots_iterator);
  VIMBREL_XCB(ungrab_key);
#undef VIMBREL_XCB
};

}  // namespace

struct X11KeyShortcut::Grab : std::enable_shared_from_this<Grab> {
  Xcb xcb;
  xcb_connection_t* connection = nullptr;
  xcb_window_t root = 0;
  std::vector<xcb_keycode_t> keys;
  std::uint16_t required = 0;  ///< Alt and Super, as this keyboard has them
  std::uint16_t ignored = 0;   ///< what may be on besides
  std::function<void()> pressed;
  Token readable;

  Grab() = default;
  Grab(const Grab&) = delete;
  Grab& operator=(const Grab&) = delete;
  ~Grab() {
    readable.reset();
    if (connection != nullptr) xcb.disconnect(connection);  // which gives every grab back
  }

  std::optional<std::string> open(const std::string& display) {
    if (!xcb.library) return sentence("libxcb is not installed, which the keys of an X11 desktop need");
    connection = xcb.connect(display.c_str(), nullptr);
    if (xcb.connection_has_error(connection) != 0)
      return sentence("the display %1 cannot be reached", {display});
    root = xcb.setup_roots_iterator(xcb.get_setup(connection)).data->root;
    return grabAll();
  }

  /// The keys that give one of the symbols, by their number.
  std::vector<xcb_keycode_t> keysFor(xcb_keysym_t wanted) const {
    const auto* setup = xcb.get_setup(connection);
    const auto count = static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1);
    const Owned<xcb_get_keyboard_mapping_reply_t> mapping(xcb.get_keyboard_mapping_reply(
        connection, xcb.get_keyboard_mapping(connection, setup->min_keycode, count), nullptr));
    std::vector<xcb_keycode_t> found;
    if (!mapping || mapping->keysyms_per_keycode == 0) return found;
    const auto* symbols = xcb.get_keyboard_mapping_keysyms(mapping.get());
    for (unsigned key = 0; key < count; ++key) {
      // In any group: where the first layout is Cyrillic, the letter is in the second.
      for (unsigned level = 0; level < mapping->keysyms_per_keycode; ++level) {
        if (symbols[key * mapping->keysyms_per_keycode + level] != wanted) continue;
        found.push_back(static_cast<xcb_keycode_t>(setup->min_keycode + key));
        break;
      }
    }
    return found;
  }

  /// The modifier that one of these keys is; `otherwise` when none is one.
  std::uint16_t modifierOf(const std::vector<xcb_keycode_t>& wanted, std::uint16_t otherwise) const {
    const Owned<xcb_get_modifier_mapping_reply_t> mapping(
        xcb.get_modifier_mapping_reply(connection, xcb.get_modifier_mapping(connection), nullptr));
    if (!mapping) return otherwise;
    const auto* codes = xcb.get_modifier_mapping_keycodes(mapping.get());
    for (unsigned modifier = 0; modifier < modifierCount; ++modifier) {
      for (unsigned i = 0; i < mapping->keycodes_per_modifier; ++i) {
        const auto code = codes[modifier * mapping->keycodes_per_modifier + i];
        if (code != 0 && std::find(wanted.begin(), wanted.end(), code) != wanted.end()) {
          return static_cast<std::uint16_t>(1U << modifier);
        }
      }
    }
    return otherwise;
  }

  std::optional<std::string> grabAll() {
    keys = keysFor(lowerL);
    if (keys.empty()) return sentence("this keyboard has no key for the letter L");
    required = modifierOf(keysFor(leftAlt), XCB_MOD_MASK_1) | modifierOf(keysFor(leftSuper), XCB_MOD_MASK_4);
    ignored = XCB_MOD_MASK_LOCK | XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL |
              modifierOf(keysFor(numLock), XCB_MOD_MASK_2);
    bool isPlainRefused = false;
    for (const auto key : keys) {
      // A grab is of one exact set of modifiers, so each of those that do not matter is one more.
      for (unsigned set = 0; set < 1U << modifierCount; ++set) {
        if ((set & ~static_cast<unsigned>(ignored)) != 0) continue;
        const auto request =
            xcb.grab_key_checked(connection, 1, root, static_cast<std::uint16_t>(required | set), key,
                                 XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        const Owned<xcb_generic_error_t> refused(xcb.request_check(connection, request));
        // With Shift or Control the keys may be another program's; only the plain ones are needed.
        const bool isPlain = (set & (XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL)) == 0;
        if (refused && refused->error_code == accessDenied && isPlain) isPlainRefused = true;
      }
    }
    if (isPlainRefused) return sentence("another program holds Alt+Super+L on this display");
    return std::nullopt;
  }

  void follow(TaskQueue& queue) {
    readable = queue.watchReadable(xcb.get_file_descriptor(connection), [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->takeEvents();
    });
    takeEvents();  // What came while the grabs were answered is read already.
  }

  void takeEvents() {
    const auto keep = shared_from_this();
    for (;;) {
      const Owned<xcb_generic_event_t> event(xcb.poll_for_event(connection));
      if (!event) break;
      const auto type = event->response_type & 0x7f;
      if (type == XCB_KEY_PRESS) pressed();
      if (type == XCB_MAPPING_NOTIFY) regrab();
    }
    // The display is gone, and with it the grab; its descriptor would be readable without end.
    if (xcb.connection_has_error(connection) != 0) readable.reset();
  }

  /// The layout changed: the letter may be on another key now.
  void regrab() {
    const auto keysBefore = keys;
    if (keysFor(lowerL) == keysBefore) return;
    for (const auto key : keysBefore) xcb.ungrab_key(connection, key, root, XCB_MOD_MASK_ANY);
    (void)grabAll();  // What is refused now cannot be reported to anybody who asked.
    xcb.flush(connection);
  }
};

std::expected<Token, std::string> X11KeyShortcut::watch(std::function<void()> pressed) {
  auto grab = std::make_shared<Grab>();
  if (auto refusal = grab->open(display_)) return std::unexpected(*std::move(refusal));
  grab->pressed = std::move(pressed);
  grab->follow(*queue_);
  return Token{[grab]() mutable { grab.reset(); }};
}

}  // namespace vimbrel
