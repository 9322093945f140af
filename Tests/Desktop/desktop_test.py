#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Clicks and types on the real desktop program, beside the real application on a simulated machine.

Runs inside display.sh --accessible. What is on the screen is found by its accessible name, as a screen reader
finds it, and clicked where it is; what came of it is asked of the application.
"""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import unittest

try:
    import gi

    gi.require_version("Atspi", "2.0")
    from gi.repository import Atspi, GLib
except (ImportError, ValueError) as problem:
    print(f"SKIPPED: {problem}")
    sys.exit(1 if os.environ.get("VIMBREL_REQUIRE_COMPONENTS") == "1" else 77)

VIMBREL = os.environ["VIMBREL_PROGRAM"]
RELAY = os.environ["VIMBREL_RELAY_PROGRAM"]
TRAY = os.environ["VIMBREL_TRAY_PROGRAM"]
HOST = os.environ.get("VIMBREL_TRAY_HOST", "trayer")
HOME = pathlib.Path(os.environ["HOME"])
PATIENCE = 30  # seconds, for any machine; nothing waits longer than what it waits for takes
WORLD = {"power": {"batteryPercent": 71, "isCharging": False, "isOnAC": False, "isLowPowerMode": False}}


def eventually(what, seconds=PATIENCE):
    """The first true value of `what()`; fails with its last value."""
    end = time.monotonic() + seconds
    while True:
        value = what()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"did not come true within {seconds} s")
        time.sleep(0.02)


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)


def keys(*names):
    run("xdotool", "key", "--clearmodifiers", *names)


def click(x, y, button=1):
    run("xdotool", "mousemove", str(x), str(y), "click", str(button))


def tree(node, depth=0):
    """Everything that is showing below a node."""
    try:
        count = node.get_child_count()
    except GLib.Error:
        return
    for index in range(min(count, 500)):
        try:
            child = node.get_child_at_index(index)
            if child is None:
                continue
            showing = child.get_state_set().contains(Atspi.StateType.SHOWING)
        except GLib.Error:
            continue  # It went away while it was looked at.
        if showing or depth < 1:
            yield child
        yield from tree(child, depth + 1)


class Desktop(unittest.TestCase):
    """Each test has a fresh home, application and desktop program."""

    completed_onboarding = True

    def setUp(self):
        for name in (".local", ".config"):
            run("rm", "-rf", str(HOME / name))
        self.world = HOME / "world.json"
        self.world.write_text(json.dumps(WORLD))
        self.application = None
        self.start_application()
        if self.completed_onboarding:
            self.vimbrel("settings", "set", "hasCompletedOnboarding", "on")
        self.start_tray()

    def tearDown(self):
        for process in (self.tray, self.application):
            if process and process.poll() is None:
                process.terminate()
                process.wait(PATIENCE)
        # One that the desktop program started has no parent here.
        version = self.rpc_pid()
        if version:
            os.kill(version, signal.SIGTERM)
            eventually(lambda: self.rpc_pid() is None)

    # What runs

    def start_application(self):
        self.application = subprocess.Popen([VIMBREL, "run", "--lines", "--simulate", str(self.world)],
                                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        eventually(lambda: self.status() is not None)

    def start_tray(self):
        self.tray = subprocess.Popen([TRAY, "--reduce-motion"])
        eventually(self.program)
        if HOST == "trayer":
            eventually(self.item_stands_still)

    def vimbrel(self, *arguments):
        result = run(VIMBREL, *arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def status(self):
        result = run(VIMBREL, "status", "--json")
        return json.loads(result.stdout) if result.returncode == 0 else None

    def rpc_pid(self):
        import socket

        try:
            with socket.socket(socket.AF_UNIX) as connection:
                connection.connect(str(HOME / ".local/share/Vimbrel/run/control.sock"))
                connection.sendall(b'{"jsonrpc":"2.0","id":1,"method":"version"}\n')
                return json.loads(connection.makefile().readline())["result"]["pid"]
        except OSError:
            return None

    def event(self, agent, state, session="one"):
        result = run(RELAY, "--agent", agent, "--state", state, "--session-id", session)
        self.assertEqual(result.returncode, 0)

    # What is on the screen

    def program(self):
        # What is remembered of a tree is brought up to date by signals, which nobody takes here.
        context = GLib.MainContext.default()
        while context.pending():
            context.iteration(False)
        desktop = Atspi.get_desktop(0)
        desktop.clear_cache()
        for index in range(desktop.get_child_count()):
            application = desktop.get_child_at_index(index)
            if application is not None and application.get_process_id() == self.tray.pid:
                application.set_cache_mask(Atspi.Cache.NONE)
                application.clear_cache()
                return application
        return None

    def find(self, name, role=None):
        """The first thing on the screen with this name, or that begins with it where it ends in "…"; or None."""
        for node in tree(self.program()):
            try:
                found = node.get_name()
                if (found == name or found.startswith(name.removesuffix("…") if name.endswith("…") else name + ",")) and (role is None or node.get_role() == role):
                    return node
            except GLib.Error:
                continue
        return None

    def see(self, name, role=None):
        try:
            return eventually(lambda: self.find(name, role))
        except AssertionError:
            names = [node.get_name() for node in tree(self.program())]
            raise AssertionError(f"{name!r} is not on the screen; there are {names}") from None

    def press(self, name, role=None):
        """Clicks the middle of what has this name, once it stands still."""
        node = self.see(name, role)
        place = node.get_extents(Atspi.CoordType.SCREEN)
        while True:
            time.sleep(0.05)
            now = node.get_extents(Atspi.CoordType.SCREEN)
            if (now.x, now.y, now.width, now.height) == (place.x, place.y, place.width, place.height):
                break
            place = now
        self.assertGreater(place.width * place.height, 0, name)
        click(place.x + place.width // 2, place.y + place.height // 2)
        return node

    def item_place(self):
        """The middle of the one item in the tray's window."""
        found = run("xdotool", "search", "--onlyvisible", "--class", "vimbrel-tray").stdout.split()
        for window in found:
            geometry = dict(line.split("=") for line in
                            run("xdotool", "getwindowgeometry", "--shell", window).stdout.split())
            width, height = int(geometry["WIDTH"]), int(geometry["HEIGHT"])
            if width <= 64 and height <= 64 and int(geometry["Y"]) > 600:
                return int(geometry["X"]) + width // 2, int(geometry["Y"]) + height // 2
        return None

    def item_stands_still(self):
        """A tray makes room for an item step by step."""
        before = self.item_place()
        time.sleep(0.3)
        return before and before == self.item_place()

    def open_popover(self):
        click(*self.item_place())
        self.see("Diagnostics", Atspi.Role.PUSH_BUTTON)
        eventually(lambda: run("xdotool", "getwindowfocus", "getwindowname").stdout.strip() == "Vimbrel")

    def height(self, name):
        return self.see(name).get_extents(Atspi.CoordType.SCREEN).height

    def is_open(self):
        return self.find("Pause for 15 minutes") or self.find("Resume") or self.find("Start Vimbrel")


class Popover(Desktop):
    def test_pauses_and_resumes(self):
        self.open_popover()
        self.press("Pause for 15 minutes")
        eventually(lambda: self.status()["pauseUntil"])
        self.press("Resume", Atspi.Role.PUSH_BUTTON)
        eventually(lambda: self.status()["pauseUntil"] is None)
        self.see("Pause for 15 minutes")

    def test_holds_and_switches_off(self):
        self.open_popover()
        self.press("Keep awake now")
        eventually(lambda: self.status()["isHolding"])
        self.see("Awake")
        self.press("Protection", Atspi.Role.CHECK_BOX)
        eventually(lambda: not self.status()["isHolding"])
        self.see("Protection is off")
        self.press("Protection", Atspi.Role.CHECK_BOX)
        eventually(lambda: self.status()["isHolding"])

    def test_works_by_keyboard_alone(self):
        self.event("claude", "working")
        self.open_popover()
        self.see("Claude Code, Working…")
        # The first row has the focus; it opens, the switches follow it, and Escape closes.
        closed = self.height("Claude Code")
        keys("Right")
        eventually(lambda: self.height("Claude Code") > closed)
        keys("Left")
        eventually(lambda: self.height("Claude Code") == closed)
        keys("Down", "Down", "space")
        eventually(lambda: self.status()["settings"]["manualHoldEnabled"])
        keys("Escape")
        eventually(lambda: not self.is_open())

    def test_closes_when_something_else_is_clicked(self):
        other = subprocess.Popen(["xev", "-geometry", "200x200+50+50"], stdout=subprocess.DEVNULL)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        eventually(lambda: run("xdotool", "search", "--onlyvisible", "--name", "Event Tester").stdout)
        self.open_popover()
        click(150, 150)
        eventually(lambda: not self.is_open())
        # A click on the item while it is open closes it, too, unless it is the second of a double click.
        time.sleep(0.6)
        self.open_popover()
        time.sleep(0.6)
        click(*self.item_place())
        eventually(lambda: not self.is_open())

    def test_follows_the_machine(self):
        self.event("claude", "working")
        self.open_popover()
        self.see("Claude Code, Working…")
        self.see("Battery 71 %")
        self.event("claude", "waiting")
        self.see("Claude Code, Waiting…")
        self.world.write_text(json.dumps({"power": {**WORLD["power"], "batteryPercent": 9}}))
        self.see("Battery 9 %")
        self.see("Protection is off")


class Menu(Desktop):
    def choose_from_below(self, steps):
        x, y = self.item_place()
        before = self.windows()
        click(x, y, button=3)
        eventually(lambda: self.windows() - before)
        keys(*["Up"] * steps, "Return")
        eventually(lambda: self.windows() == before or self.tray.poll() is not None)

    def windows(self):
        return set(run("xdotool", "search", "--onlyvisible", "--class", "vimbrel-tray").stdout.split())

    def test_works_by_mouse_and_keyboard(self):
        # Menus show no tree to screen readers until one walks them, so they are walked: from the last entry up,
        # past diagnostics, settings, history, the popover and the master switch.
        self.choose_from_below(7)
        eventually(lambda: self.status()["isHolding"])
        self.choose_from_below(1)
        self.assertEqual(self.tray.wait(PATIENCE), 0)
        self.assertTrue(self.status()["isHolding"], "the application goes on without its desktop")


class Notifier(Desktop):
    """The item by the newer protocol, asked as the panel asks it."""

    def call(self, method, *arguments):
        service, path = self.item
        result = run("gdbus", "call", "--session", "-d", service, "-o", path, "-m", method, *arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def registered(self):
        result = run("gdbus", "call", "--session", "-d", "org.kde.StatusNotifierWatcher", "-o",
                     "/StatusNotifierWatcher", "-m", "org.freedesktop.DBus.Properties.Get",
                     "org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems")
        items = re.findall(r"'([^']+)'", result.stdout)
        return items and (items[0].split("/", 1) + ["StatusNotifierItem"])[:2]

    def test_is_shown_and_opens(self):
        service, path = eventually(self.registered)
        self.item = service, "/" + path.lstrip("/")
        properties = self.call("org.freedesktop.DBus.Properties.GetAll", "org.kde.StatusNotifierItem")
        self.assertIn("Sleep enabled", properties, "the tooltip")
        before = properties.partition("IconPixmap")[2]
        self.event("claude", "working")
        eventually(lambda: "Claude Code working" in self.call("org.freedesktop.DBus.Properties.GetAll",
                                                             "org.kde.StatusNotifierItem"))
        after = self.call("org.freedesktop.DBus.Properties.GetAll", "org.kde.StatusNotifierItem")
        self.assertNotEqual(after.partition("IconPixmap")[2], before, "the picture follows")
        menu = re.search(r"'Menu': <objectpath '([^']+)'>", after).group(1)
        layout = run("gdbus", "call", "--session", "-d", service, "-o", menu, "-m",
                     "com.canonical.dbusmenu.GetLayout", "--", "0", "-1", "[]").stdout
        for text in ("Agents", "Claude Code: Working", "Pause for 1 Hour", "Keep Awake Now", "Quit"):
            self.assertIn(text, layout)
        self.call("org.kde.StatusNotifierItem.Activate", "600", "400")
        self.see("Claude Code, Working…")
        keys("Escape")
        eventually(lambda: not self.is_open())


class Windows(Desktop):
    def open_page(self, page):
        self.open_popover()
        self.press(page, Atspi.Role.PUSH_BUTTON)

    def test_a_setting_is_applied_as_it_is_typed(self):
        self.open_page("Settings")
        self.press("Battery floor", Atspi.Role.SPIN_BUTTON)
        keys("ctrl+a", "2", "2", "Return")
        eventually(lambda: self.status()["settings"]["batteryFloorPercent"] == 22)
        saved = json.loads((HOME / ".config/com.vimbrel.app/settings.json").read_text())
        self.assertEqual(saved["batteryFloorPercent"], 22)
        # A duration as people write it, and one that is none: the sentence says what would be taken.
        self.press("Release delay", Atspi.Role.TEXT)
        keys("ctrl+a", "2", "m", "Return")
        eventually(lambda: self.status()["settings"]["releaseDelaySeconds"] == 120)
        keys("ctrl+a", "x", "Return")
        self.see('releaseDelaySeconds cannot be "x"…')
        self.assertEqual(self.status()["settings"]["releaseDelaySeconds"], 120)
        # What somebody else changes shows at once.
        self.vimbrel("settings", "set", "batteryFloorPercent", "30")
        floor = self.see("Battery floor", Atspi.Role.SPIN_BUTTON)
        eventually(lambda: floor.get_current_value() == 30)

    def test_settings_are_reset_after_a_question(self):
        self.vimbrel("settings", "set", "batteryFloorPercent", "40")
        self.open_page("Settings")
        self.press("Reset to Defaults…", Atspi.Role.PUSH_BUTTON)
        self.see("Cancel", Atspi.Role.PUSH_BUTTON)
        self.assertEqual(self.status()["settings"]["batteryFloorPercent"], 40, "not before the answer")
        self.press("Reset", Atspi.Role.PUSH_BUTTON)
        eventually(lambda: self.status()["settings"]["batteryFloorPercent"] == 15)

    def test_every_page_names_what_can_be_used(self):
        self.event("claude", "working")
        usable = {Atspi.Role.PUSH_BUTTON, Atspi.Role.CHECK_BOX, Atspi.Role.SPIN_BUTTON, Atspi.Role.COMBO_BOX,
                  Atspi.Role.TEXT, Atspi.Role.TABLE, Atspi.Role.LIST, Atspi.Role.PAGE_TAB}
        self.open_page("Settings")
        for page in ("History", "Usage", "Agents", "Settings", "Diagnostics"):
            self.press(page, Atspi.Role.PAGE_TAB)
            time.sleep(0.5)
            nameless = [node.get_role_name() for node in tree(self.program())
                        if node.get_role() in usable and not node.get_name() and
                        # The line within a spin box is a part of it.
                        node.get_parent().get_role() != Atspi.Role.SPIN_BUTTON]
            self.assertEqual(nameless, [], page)


class Introduction(Desktop):
    completed_onboarding = False

    def test_opens_by_itself_and_hears_the_first_event(self):
        self.see("Welcome. …")
        self.press("Codex CLI…", Atspi.Role.LIST_ITEM)
        self.press("Copy what to paste")
        self.see("Waiting for the first event of Codex CLI…")
        self.event("gemini", "working", "another")
        self.event("codex", "working")
        self.see("✓ The first event of Codex CLI was received…")
        self.press("Finish the introduction")
        eventually(lambda: self.status()["settings"]["hasCompletedOnboarding"])
        eventually(lambda: not self.find("Welcome. …"))


class Application(Desktop):
    def test_its_end_and_return_show_at_once(self):
        self.event("claude", "working")
        self.open_popover()
        self.see("Claude Code, Working…")
        self.application.kill()
        self.application.wait()
        self.see("Vimbrel is not running")
        self.see("Start Vimbrel")
        self.assertFalse(self.find("Claude Code"), "nothing of what was is shown as if it were")
        self.start_application()
        self.see("Sleep allowed")
        self.see("Pause for 15 minutes")

    def test_is_started_from_here(self):
        self.application.terminate()
        self.application.wait()
        self.open_popover()
        self.press("Start Vimbrel")
        eventually(lambda: self.rpc_pid())
        self.see("Sleep allowed")


if __name__ == "__main__":
    unittest.main(verbosity=2)
