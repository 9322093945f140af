#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Clicks and types on the real desktop program, beside the real application on a simulated machine.

Runs inside display.sh --accessible.
"""
import json
import os
import re
import socket
import subprocess
import time
import unittest

from desktop_world import HOME, PATIENCE, TRAY, WORLD, Atspi, Desktop, click, eventually, keys, run, tree


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
    def test_works_by_mouse_and_keyboard(self):
        # Menus show no tree to screen readers until one walks them, so they are walked: from the last entry up,
        # past the introduction, diagnostics, settings, history, the popover and the master switch.
        self.choose_from_below(8)
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

    def test_the_agents_page_names_the_file_that_the_agent_reads(self):
        self.tray.terminate()
        self.tray.wait(PATIENCE)
        # The application was started elsewhere and knows nothing of it.
        self.start_tray(CLAUDE_CONFIG_DIR=str(HOME / "claudecfg"))
        self.open_page("Agents")
        self.press("Claude Code…", Atspi.Role.LIST_ITEM)
        self.see("Goes into ~/claudecfg/settings.json…")

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
        self.see("Welcome to Vimbrel")
        self.press("Codex CLI…", Atspi.Role.LIST_ITEM)
        self.press("Copy what to paste")
        self.see("Waiting for the first event of Codex CLI…")
        self.event("gemini", "working", "another")
        self.event("codex", "working")
        self.see("✓ The first event of Codex CLI was received…")
        self.press("Finish the introduction")
        eventually(lambda: self.status()["settings"]["hasCompletedOnboarding"])
        eventually(lambda: not self.find("Welcome to Vimbrel"))

    def test_opens_again_from_the_menu(self):
        self.press("Finish the introduction")
        eventually(lambda: not self.find("Welcome to Vimbrel"))
        keys("Escape")
        eventually(lambda: not self.windows_besides_the_item())
        self.choose_from_below(2)
        self.see("Welcome to Vimbrel")
        self.press("Finish the introduction")
        eventually(lambda: not self.find("Welcome to Vimbrel"))


class German(Desktop):
    """The same program in another language, in its direction and, as it would be for others, from right to left."""

    tray_options = ("--reduce-motion",)

    def start_tray(self):
        self.tray = subprocess.Popen([TRAY, *self.tray_options],
                                     env={**os.environ, "LC_ALL": "C.UTF-8", "LANGUAGE": "de"})
        eventually(self.program)
        eventually(self.item_stands_still)

    def require_german(self):
        names = [node.get_name() for node in tree(self.program())]
        english = [name for name in names if re.search(r"\b(the|is|are|and|until|with|of|to|for|this|not)\b", name)]
        self.assertEqual(english, [])
        self.assertGreater(len(names), 10)

    def test_is_operated_in_german(self):
        self.event("claude", "working")
        click(*self.item_place())
        self.see("Diagnose", Atspi.Role.PUSH_BUTTON)
        self.see("Claude Code, Arbeitet…")
        self.see("Akku 71 %")
        self.see("Claude Code bei der Arbeit")
        self.require_german()
        self.press("Jetzt wach halten")
        eventually(lambda: self.status()["settings"]["manualHoldEnabled"])
        self.press("15 Minuten Pause")
        eventually(lambda: self.status()["pauseUntil"])
        self.press("Fortsetzen", Atspi.Role.PUSH_BUTTON)
        eventually(lambda: self.status()["pauseUntil"] is None)
        self.assertEqual(self.status()["statusDescription"], "Active (1 working agent) — Manual hold requested")
        self.press("Einstellungen", Atspi.Role.PUSH_BUTTON)
        self.see("Nachlaufzeit")
        self.see("Auf Vorgaben zurücksetzen …")
        self.require_german()


class GermanFromTheRight(German):
    tray_options = ("--reduce-motion", "-reverse")


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
        programs, asked = HOME / "bin", HOME / "asked"
        programs.mkdir()
        (programs / "systemctl").write_text(f'#!/bin/sh\necho "$3" >>{asked}\nexit 5\n')  # no such unit
        (programs / "systemctl").chmod(0o755)
        self.tray.terminate()
        self.tray.wait()
        self.start_tray(PATH=f"{programs}:{os.environ['PATH']}")
        self.application.terminate()
        self.application.wait()
        self.open_popover()
        self.press("Start Vimbrel")
        eventually(lambda: self.rpc_pid())
        self.see("Sleep allowed")
        self.assertEqual(asked.read_text().split(), ["com.vimbrel.app.service", "vimbrel.service"])

    def test_survives_a_stranger_in_its_place(self):
        self.application.kill()
        self.application.wait()
        path = HOME / ".local/share/Vimbrel/run/control.sock"
        path.unlink()
        stranger = socket.socket(socket.AF_UNIX)
        self.addCleanup(stranger.close)
        stranger.settimeout(PATIENCE)
        stranger.bind(str(path))
        stranger.listen()
        state = b'{"jsonrpc":"2.0","method":"state","params":%s}\n'
        for said in (b"", b"HTTP/1.1 400 Bad Request\r\n\r\n", b'{"jsonrpc":"2.0","method":"sta',
                     b'{"id":1,"error":{"code":1,"message":"no"}}\n', b'{"id":1,"error":7}\n{"id":"1"}\n{"id":1}\n[]\n',
                     state % b"7" + state % b"{}" + state % b'{"sessions":[{"agentType":3}],"decision":"hold"}',
                     b"x" * (17 << 20)):
            connection, _ = stranger.accept()
            with connection:
                connection.settimeout(PATIENCE)
                self.assertIn(b"subscribe", connection.recv(4096))
                try:
                    connection.sendall(said)
                except (BrokenPipeError, ConnectionResetError):
                    self.assertGreater(len(said), 16 << 20, "it hangs up on what is longer than any state")
        stranger.accept()[0].close()
        stranger.close()
        path.unlink()
        self.start_application()
        # What it could not read made it open; that is gone when it is opened again.
        self.see("Sleep allowed")
        self.see("the state…")
        keys("Escape")
        eventually(lambda: not self.is_open())
        self.open_popover()
        self.see("Sleep allowed")
        self.assertFalse(self.find("the state…"), "an old problem is not shown again")


if __name__ == "__main__":
    unittest.main(verbosity=2)
