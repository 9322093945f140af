# SPDX-License-Identifier: Apache-2.0
"""A mouse and a keyboard for a Wayland compositor that has neither (wlr-virtual-pointer-unstable-v1 and
virtual-keyboard-unstable-v1), spoken on the wire. They stay as long as the object: a keyboard that comes and goes with
each key would take the focus away from windows."""
import array
import os
import pathlib
import socket
import struct
import time

BUTTONS = {"left": 0x110, "right": 0x111}
KEYS = {"Escape": 1, "Return": 28, "space": 57, "Up": 103, "Down": 108, "Tab": 15}
# Our objects, made in this order as the protocol wants.
DISPLAY, REGISTRY, SYNCED, SEAT, POINTERS, POINTER, KEYBOARDS, KEYBOARD = range(1, 9)
KEYMAP = b"""xkb_keymap { xkb_keycodes { include "evdev" }; xkb_types { include "complete" };
xkb_compatibility { include "complete" }; xkb_symbols { include "pc+us" }; };\0"""


class VirtualInput:
    def __init__(self, width, height):
        self.size = width, height
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(pathlib.Path(os.environ["XDG_RUNTIME_DIR"]) / os.environ["WAYLAND_DISPLAY"]))
        self._send(DISPLAY, 1, struct.pack("I", REGISTRY))
        numbers = self._globals()
        self._bind(numbers, "wl_seat", SEAT)
        self._bind(numbers, "zwlr_virtual_pointer_manager_v1", POINTERS)
        self._send(POINTERS, 0, struct.pack("II", SEAT, POINTER))
        self._bind(numbers, "zwp_virtual_keyboard_manager_v1", KEYBOARDS)
        self._send(KEYBOARDS, 0, struct.pack("II", SEAT, KEYBOARD))
        keymap = os.memfd_create("keymap")
        os.write(keymap, KEYMAP)
        self._send(KEYBOARD, 0, struct.pack("II", 1, len(KEYMAP)), keymap)
        os.close(keymap)

    def close(self):
        self.socket.close()

    def click(self, x, y, button="left"):
        self.move(x, y)
        for state in (1, 0):
            self._send(POINTER, 2, struct.pack("III", self._now(), BUTTONS[button], state))
            self._send(POINTER, 4, b"")

    def move(self, x, y):
        self._send(POINTER, 1, struct.pack("IIIII", self._now(), x, y, *self.size))
        self._send(POINTER, 4, b"")

    def press(self, *keys):
        for key in keys:
            for state in (1, 0):
                self._send(KEYBOARD, 1, struct.pack("III", self._now(), KEYS[key], state))

    @staticmethod
    def _now():
        # In milliseconds; two clicks at the same time would be a double click.
        return int(time.monotonic() * 1000) % 2**32

    def _send(self, target, operation, arguments, descriptor=None):
        message = struct.pack("II", target, (8 + len(arguments)) << 16 | operation) + arguments
        if descriptor is None:
            self.socket.sendall(message)
        else:
            self.socket.sendmsg([message], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [descriptor]))])

    def _bind(self, numbers, interface, target):
        if interface not in numbers:
            raise LookupError(f"the compositor has no {interface}")
        name = interface.encode() + b"\0"
        padded = name.ljust(-(-len(name) // 4) * 4, b"\0")
        self._send(REGISTRY, 0, struct.pack("II", numbers[interface], len(name)) + padded + struct.pack("II", 1, target))

    def _receive(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            if not more:
                raise ConnectionError("the compositor has closed the connection")
            data += more
        return data

    def _globals(self):
        """The numbers of everything that the compositor offers."""
        self._send(DISPLAY, 0, struct.pack("I", SYNCED))
        numbers = {}
        while True:
            target, head = struct.unpack("II", self._receive(8))
            body = self._receive((head >> 16) - 8)
            if target == SYNCED:
                return numbers
            if target == REGISTRY:
                number, length = struct.unpack_from("II", body)
                numbers[body[8:8 + length - 1].decode()] = number
