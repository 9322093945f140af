#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The desktop program among what it finds on a desktop: the screen's edge, the portal's settings, panels that come
late, go and come back, and more than one of them.

Runs inside display.sh --accessible.
"""
import pathlib
import subprocess
import time
import unittest

from desktop_world import Atspi, Desktop, PATIENCE, click, eventually, place_of, run


def picture(area):
    """The pixels of a part of the screen, as bytes of red, green and blue."""
    x, y, width, height = area
    return subprocess.run(["import", "-window", "root", "-crop", f"{width}x{height}+{x}+{y}", "+repage", "-depth", "8",
                           "rgb:-"], capture_output=True, timeout=PATIENCE).stdout


def brightness(area):
    pixels = picture(area)
    return sum(pixels) / len(pixels)


class Pill(Desktop):
    def pill(self):
        found = run("xdotool", "search", "--onlyvisible", "--name", "^Vimbrel status$").stdout.split()
        return found and place_of(found[0])

    def test_comes_with_a_change_and_goes(self):
        self.start("xev", "-geometry", "200x200+50+50")
        window = eventually(lambda: run("xdotool", "search", "--onlyvisible", "--name", "Event Tester").stdout.split())[0]
        run("xdotool", "windowfocus", "--sync", window)
        self.assertFalse(self.pill(), "the first state is no change")
        self.event("claude", "working")
        x, y, width, height = eventually(self.pill)
        began = time.monotonic()
        self.assertEqual(y, 0)
        self.assertAlmostEqual(x + width / 2, 640, delta=2)
        self.assertEqual(run("xdotool", "getwindowfocus").stdout.strip(), window)
        eventually(lambda: not self.pill())
        # Four seconds, however long this test looked away; never much less.
        self.assertGreater(time.monotonic() - began, 2.5)
        self.assertEqual(run("xdotool", "getwindowfocus").stdout.strip(), window)

    def test_stays_by_setting_and_opens_the_popover(self):
        self.vimbrel("settings", "set", "notchAlwaysVisible", "on")
        x, y, width, height = eventually(self.pill)
        time.sleep(5)
        self.assertTrue(self.pill(), "it stays longer than a change does")
        click(x + width // 2, y + height // 2)
        self.see("Diagnostics", Atspi.Role.PUSH_BUTTON)
        eventually(lambda: not self.pill())
        run("xdotool", "key", "Escape")
        eventually(self.pill)
        self.vimbrel("settings", "set", "notchEnabled", "off")
        eventually(lambda: not self.pill())


class Portal(Desktop):
    tray_options = ()
    starts_by_itself = False
    APPEARANCE, GNOME = "org.freedesktop.appearance", "org.gnome.desktop.interface"

    def start_portal(self, *settings):
        self.start("/usr/bin/python3", str(pathlib.Path(__file__).with_name("mock_portal.py")), *settings)
        self.assertEqual(run("gdbus", "wait", "--session", "--timeout", "20",
                             "org.freedesktop.portal.Desktop").returncode, 0)

    def set(self, namespace, key, number):
        answer = run("gdbus", "call", "--session", "-d", "org.freedesktop.portal.Desktop", "-o", "/mock", "-m",
                     "org.vimbrel.Mock.Set", namespace, key, str(number))
        self.assertEqual(answer.returncode, 0, answer.stderr)

    def popover(self):
        window = run("xdotool", "search", "--onlyvisible", "--name", "^Vimbrel$").stdout.split()[0]
        return place_of(window)

    def test_colours_follow_while_windows_are_open(self):
        self.start_portal(f"{self.APPEARANCE}/color-scheme=1")
        self.start_tray()
        self.open_popover()
        place = self.popover()
        eventually(lambda: brightness(place) < 80)
        self.set(self.APPEARANCE, "color-scheme", 2)
        eventually(lambda: brightness(place) > 200)
        self.set(self.APPEARANCE, "color-scheme", 1)
        eventually(lambda: brightness(place) < 80)

    def test_a_portal_may_come_later(self):
        self.start_tray()
        self.open_popover()
        place = self.popover()
        eventually(lambda: brightness(place) > 200)
        self.start_portal(f"{self.APPEARANCE}/color-scheme=1")
        eventually(lambda: brightness(place) < 80)

    def moves(self):
        """Whether the avatar in the panel shows more than one picture in a second."""
        x, y = self.item_place()
        area = (x - 8, y - 8, 16, 16)
        first = picture(area)
        end = time.monotonic() + 1
        while time.monotonic() < end:
            if picture(area) != first:
                return True
        return False

    def test_little_motion_is_wished_for_in_two_places(self):
        self.start_portal(f"{self.APPEARANCE}/reduced-motion=0", f"{self.GNOME}/enable-animations=1")
        self.start_tray()
        self.event("claude", "working")
        eventually(self.moves)
        self.set(self.APPEARANCE, "reduced-motion", 1)
        eventually(lambda: not self.moves())
        # One wish is enough, whatever the other says.
        self.set(self.GNOME, "enable-animations", 1)
        self.assertFalse(self.moves())
        self.set(self.APPEARANCE, "reduced-motion", 0)
        eventually(self.moves)
        self.set(self.GNOME, "enable-animations", 0)
        eventually(lambda: not self.moves())


class Panels(Desktop):
    starts_by_itself = False
    TRAYER = ("trayer", "--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "32",
              "--transparent", "false")
    XFCE = ("xfce4-panel", "--disable-wm-check")

    def registered(self):
        """Items by the newer protocol, as their host knows them."""
        answer = run("gdbus", "call", "--session", "-d", "org.kde.StatusNotifierWatcher", "-o",
                     "/StatusNotifierWatcher", "-m", "org.freedesktop.DBus.Properties.Get",
                     "org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems").stdout
        return answer.count("'") // 2

    def docked(self):
        """Items by the older one: windows in a panel."""
        return sum(1 for window in self.windows() if max(place_of(window)[2:]) <= 64)

    def end(self, process):
        process.kill()
        process.wait(PATIENCE)

    def test_the_older_tray_comes_late_and_again(self):
        self.start_tray_alone()
        panel = self.start(*self.TRAYER)
        eventually(self.item_stands_still)
        self.assertEqual((self.docked(), self.registered()), (1, 0))
        self.end(panel)
        eventually(lambda: self.docked() == 0)
        self.start(*self.TRAYER)
        eventually(self.item_stands_still)
        self.assertEqual(self.docked(), 1)
        self.open_popover()

    def test_the_newer_host_comes_late_and_again(self):
        self.start_tray_alone()
        panel = self.start(*self.XFCE)
        eventually(lambda: self.registered() + self.docked() == 1)
        self.end(panel)
        eventually(lambda: self.registered() + self.docked() == 0)
        self.start(*self.XFCE)
        eventually(lambda: self.registered() + self.docked() == 1)

    def test_two_hosts_show_one_item(self):
        self.start(*self.XFCE)
        eventually(lambda: run("gdbus", "wait", "--session", "--timeout", "1",
                               "org.kde.StatusNotifierWatcher").returncode == 0)
        self.start(*self.TRAYER)
        self.start_tray_alone()
        eventually(lambda: self.registered() == 1)
        time.sleep(3)  # longer than the program looks for a place
        self.assertEqual((self.registered(), self.docked()), (1, 0))

    def start_tray_alone(self):
        self.start_tray()
        eventually(self.program)


if __name__ == "__main__":
    unittest.main(verbosity=2)
