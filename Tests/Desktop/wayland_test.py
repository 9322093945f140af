#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The real desktop program on Wayland: its item in Waybar, its windows in sway, clicked and typed on.

Runs inside wayland.sh. usage: wayland_test.py VIMBREL RELAY TRAY
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from virtual_input import VirtualInput  # noqa: E402

VIMBREL, RELAY, TRAY = sys.argv[1:4]
HOME = pathlib.Path(os.environ["HOME"])
WIDTH, HEIGHT, BAR = 1024, 768, 32
PATIENCE = 20  # seconds, for any machine; nothing waits longer than what it waits for takes
PANEL = {"layer": "top", "height": BAR, "modules-right": ["tray"], "tray": {"icon-size": 24, "spacing": 0}}


def eventually(what):
    end = time.monotonic() + PATIENCE
    while not (value := what()):
        if time.monotonic() > end:
            raise AssertionError(f"did not come true within {PATIENCE} s")
        time.sleep(0.05)
    return value


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)


def lit(left, top, right, bottom):
    """The rows of the screen in which something is not black between two columns."""
    picture = subprocess.run(["grim", "-t", "ppm", "-"], capture_output=True, timeout=PATIENCE).stdout
    pixels = picture[-WIDTH * HEIGHT * 3:]
    return [y for y in range(top, bottom) if any(pixels[3 * (y * WIDTH + left):3 * (y * WIDTH + right)])]


def windows():
    """Name, place and whether it has the focus, of the windows of the program."""
    found = []

    def walk(node):
        if node.get("app_id") == "vimbrel-tray":
            found.append((node["name"], node["rect"], node["focused"]))
        for child in node.get("nodes", []) + node.get("floating_nodes", []):
            walk(child)

    walk(json.loads(run("swaymsg", "-t", "get_tree").stdout))
    return found


class Wayland(unittest.TestCase):
    def setUp(self):
        for name in (".local", ".config"):
            shutil.rmtree(HOME / name, ignore_errors=True)
        (HOME / "world.json").write_text("{}")
        (HOME / "waybar.json").write_text(json.dumps(PANEL))
        (HOME / "waybar.css").write_text("* { background: #000000; border: none; padding: 0; margin: 0; }")
        self.application = self.start(VIMBREL, "run", "--lines", "--simulate", str(HOME / "world.json"))
        eventually(lambda: run(VIMBREL, "status").returncode == 0)
        self.set("hasCompletedOnboarding", "on")
        self.hand = VirtualInput(WIDTH, HEIGHT)
        self.addCleanup(self.hand.close)
        self.hand.move(200, 700)

    def start(self, *command, **options):
        process = subprocess.Popen(command, **{"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL} | options)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        return process

    def start_panel(self):
        return self.start("waybar", "-c", str(HOME / "waybar.json"), "-s", str(HOME / "waybar.css"),
                          env={**os.environ, "GDK_BACKEND": "wayland"})

    def start_both(self):
        panel = self.start_panel()
        # A sanitizer's finding in it is to be seen.
        self.tray = self.start(TRAY, "--reduce-motion", stderr=None)
        eventually(self.item_is_shown)
        return panel

    def set(self, key, value):
        self.assertEqual(run(VIMBREL, "settings", "set", key, value).returncode, 0)

    def status(self):
        return json.loads(run(VIMBREL, "status", "--json").stdout)

    def item_is_shown(self):
        return lit(WIDTH - 28, 0, WIDTH, BAR)

    def items(self):
        answer = run("gdbus", "call", "--session", "-d", "org.kde.StatusNotifierWatcher", "-o",
                     "/StatusNotifierWatcher", "-m", "org.freedesktop.DBus.Properties.Get",
                     "org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems").stdout
        return answer.count("StatusNotifierItem'")

    def click_item(self, button="left"):
        self.hand.click(WIDTH - 14, BAR // 2, button)

    def test_popover_opens_works_and_closes(self):
        self.start_both()
        self.click_item()
        eventually(lambda: [name for name, _, has_focus in windows() if name == "Vimbrel" and has_focus])
        self.hand.press("Down", "Down", "space")
        eventually(lambda: self.status()["isHolding"])
        self.hand.press("Escape")
        eventually(lambda: not windows())
        # The second of a double click would not open it again.
        time.sleep(0.6)
        self.click_item()
        eventually(windows)
        self.hand.click(100, HEIGHT - 50)
        eventually(lambda: not windows())

    def test_menu_opens_a_window(self):
        self.start_both()
        self.click_item("right")
        # Each band of text is an entry; the tenth are the settings.
        def entries():
            bands = []
            for y in lit(WIDTH - 330, BAR // 4, WIDTH - 30, HEIGHT):
                if not bands or y > bands[-1][-1] + 1:
                    bands.append([])
                bands[-1].append(y)
            return len(bands) >= 13 and bands

        band = eventually(entries)[9]
        self.hand.click(WIDTH - 200, (band[0] + band[-1]) // 2)
        place = eventually(windows)[0][1]
        self.assertGreater(place["width"], 500)

    def test_pill_stays_away(self):
        self.set("notchAlwaysVisible", "on")
        self.start_both()
        run(RELAY, "--agent", "claude", "--state", "working", "--session-id", "one")
        eventually(lambda: self.status()["isHolding"])
        # What would bring it has reached the program when its popover shows it.
        self.click_item()
        eventually(windows)
        self.hand.press("Escape")
        eventually(lambda: not windows())
        eventually(lambda: lit(300, 0, 700, HEIGHT) == [])

    def test_panel_comes_later_and_again(self):
        self.tray = self.start(TRAY, "--reduce-motion", stderr=None)
        eventually(lambda: "com.vimbrel.Tray" in run(
            "gdbus", "call", "--session", "-d", "org.freedesktop.DBus", "-o", "/org/freedesktop/DBus", "-m",
            "org.freedesktop.DBus.ListNames").stdout)
        panel = self.start_panel()
        eventually(self.item_is_shown)
        panel.kill()
        panel.wait(PATIENCE)
        eventually(lambda: not self.item_is_shown())
        self.start_panel()
        eventually(self.item_is_shown)
        self.assertEqual(self.items(), 1)
        self.click_item()
        eventually(windows)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
