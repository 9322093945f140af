# SPDX-License-Identifier: Apache-2.0
"""What tests on the real desktop program share: the programs, each in a fresh home, and hands and eyes.

Inside display.sh --accessible. What is on the screen is found by its accessible name, as a screen reader finds it,
and clicked where it is; what came of it is asked of the application.
"""
import json
import os
import pathlib
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
HOST = os.environ.get("VIMBREL_TRAY_HOST", "trayer")  # or "none": the test starts panels itself
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


def place_of(window):
    """Left, top, width and height on the screen; zeros when the window is gone."""
    geometry = dict(line.split("=") for line in
                    run("xdotool", "getwindowgeometry", "--shell", window).stdout.split())
    return tuple(int(geometry.get(key, 0)) for key in ("X", "Y", "WIDTH", "HEIGHT"))


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
    tray_options = ("--reduce-motion",)
    starts_by_itself = True  # the desktop program, in setUp
    menu_clicks = 0

    def setUp(self):
        for name in (".local", ".config"):
            run("rm", "-rf", str(HOME / name))
        self.world = HOME / "world.json"
        self.world.write_text(json.dumps(WORLD))
        self.application = self.tray = None
        self.addCleanup(self.end_programs)  # also when what follows fails
        self.start_application()
        if self.completed_onboarding:
            self.vimbrel("settings", "set", "hasCompletedOnboarding", "on")
        if self.starts_by_itself:
            self.start_tray()

    def end_programs(self):
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

    def start_tray(self, **variables):
        self.tray = subprocess.Popen([TRAY, *self.tray_options], env={**os.environ, **variables})
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
                connection.settimeout(PATIENCE)
                connection.connect(str(HOME / ".local/share/Vimbrel/run/control.sock"))
                connection.sendall(b'{"jsonrpc":"2.0","id":1,"method":"version"}\n')
                return json.loads(connection.makefile().readline())["result"]["pid"]
        except OSError:
            return None

    def event(self, agent, state, session="one"):
        result = run(RELAY, "--agent", agent, "--state", state, "--session-id", session)
        self.assertEqual(result.returncode, 0)

    def start(self, *command):
        """Something else that runs until the test ends."""
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.kill)
        return process

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
        for window in self.windows():
            x, y, width, height = place_of(window)
            if width <= 64 and height <= 64 and y > 600:
                return x + width // 2, y + height // 2
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

    def choose_from_below(self, steps):
        before = self.windows()
        x, y = self.item_place()
        # Never twice at the same place: a click soon after another would be the second of a double click.
        self.menu_clicks += 1
        click(x, y + (-8 if self.menu_clicks % 2 else 8), button=3)
        menu = eventually(lambda: {window for window in self.windows() - before if not self.is_pill(window)})
        # A menu that is on the screen may not have the keyboard yet; then it has seen none of the keys.
        def is_gone():
            return not self.windows() & menu or self.tray.poll() is not None

        for _ in range(10):
            keys(*["Up"] * steps, "Return")
            try:
                return eventually(is_gone, PATIENCE / 10)
            except AssertionError:
                continue
        self.fail("the menu does not take a choice")

    def is_pill(self, window):
        return place_of(window)[1] < 10  # It hangs from the top, and comes and goes as the state changes.

    def windows_besides_the_item(self):
        return [window for window in self.windows() if place_of(window)[2] > 64]

    def windows(self):
        return set(run("xdotool", "search", "--onlyvisible", "--class", "vimbrel-tray").stdout.split())

    def height(self, name):
        return self.see(name).get_extents(Atspi.CoordType.SCREEN).height

    def is_open(self):
        return self.find("Pause for 15 minutes") or self.find("Resume") or self.find("Start Vimbrel")
