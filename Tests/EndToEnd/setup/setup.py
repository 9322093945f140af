# SPDX-License-Identifier: Apache-2.0
"""`vimbrel` alone and `vimbrel setup`, as a person at a terminal meets them: every answer, every way out, on a machine
with a service manager, with a desktop only, and with neither. Nothing is changed before a yes, no file of another
program ever, and what one run has done the next one finds."""

import os
import subprocess

from machine import Machine
from sandbox import eventually, require
from terminal import Terminal


def greets():
    with Machine() as machine:
        before = machine.others()
        with Terminal(machine) as terminal:
            text = terminal.end(0)
            require("It does not run" in text and "vimbrel setup" in text and "vimbrel run" in text, text)
        machine.start()
        with Terminal(machine) as terminal:
            text = terminal.end(0)
            require("No active agent sessions" in text and "none has reported yet" in text, text)
        machine.relay("--agent", "claude", "--state", "working")
        eventually(lambda: machine.ask("status")["lastEvents"], "the event")
        with Terminal(machine) as terminal:
            text = terminal.end(0)
            require("Claude Code working" in text and "none has reported" not in text, text)
        machine.stop()
        bare = machine.command()
        require(bare.returncode == 2 and "vimbrel --help" in bare.stderr and not bare.stdout, "elsewhere it is misuse")
        require(machine.others() == before, "looking changes nothing")
        machine.write(".config/systemd/user/default.target.wants/vimbrel.service", "")
        with Terminal(machine) as terminal:
            require("systemctl --user start vimbrel.service" in terminal.end(0), "its service is named")


def asks_first():
    with Machine() as machine:
        before = machine.others()
        refused = machine.command("setup")
        require(refused.returncode == 2 and "--yes" in refused.stderr, refused.stderr)
        rehearsed = machine.command("setup", "--dry-run", "--yes")
        require(rehearsed.returncode == 0 and "It would now: Enable the user service vimbrel.service" in rehearsed.stdout,
                rehearsed.stdout)
        # Every step declined, by each word for it.
        with Terminal(machine, "setup") as terminal:
            terminal.asked("Enable the user service vimbrel.service", "start it now?")
            terminal.answer("what?")
            terminal.asked("n for no")
            terminal.answer("n")
            terminal.asked("Claude Code (2.1.0 (Claude Code)) is here and not connected. See how")
            terminal.answer("no")
            terminal.asked("vimbrel agents setup claude", "Show it in the panel now?")
            terminal.answer("s")
            text = terminal.end(0)
            require("skipped" in text and "Vimbrel does not run, so the lid" in text, text)
        require(not machine.runs and not machine.units and not machine.entry, "nothing was done")
        require(machine.others() == before and not machine.read(".test/asked"), "nothing was touched")
        require(not machine.read(".test/tray") and not machine.read(".test/clipboard"), "nor started")


def walk(terminal, machine, answers):
    """Says yes to so many questions, one of which is the waiting for an agent's event, and stops at the next."""
    for number in range(answers + 1):
        text = terminal.until("%s|%s|vimbrel doctor" % (Terminal.question, Terminal.waiting))
        if text.endswith("vimbrel doctor"):
            return False
        if number == answers:
            return True
        if text.endswith("without."):
            machine.relay("--agent", "claude", "--state", "working", "--session-id", "first")
        else:
            terminal.answer("")


def connects_everything():
    with Machine() as machine:
        before = machine.others()
        with Terminal(machine, "setup") as terminal:
            terminal.asked("Enable the user service")
            terminal.answer("")
            terminal.asked("See how it is connected?")
            terminal.answer("y")
            terminal.asked("put this into ~/.claude/settings.json", machine.relay_program, "clipboard?")
            terminal.answer("yes")
            terminal.until(Terminal.waiting)
            require(machine.relay_program in machine.read(".test/clipboard"), "the snippet is on the clipboard")
            require(machine.command("agents", "test", "claude").returncode == 0, "a trial is no first event")
            machine.relay("--agent", "claude", "--state", "working", "--session-id", "first")
            terminal.until("received: Claude Code reports Working")
            terminal.asked("panel")
            terminal.answer("")
            text = terminal.end(0)
            require("connected: Claude Code" in text and "starts at login (vimbrel.service); it runs" in text, text)
        require(machine.units == ["vimbrel.service"] and not machine.entry, "one thing starts it at login")
        require(machine.others() == before, "no configuration was touched")
        eventually(lambda: machine.read(".test/tray") == "started\n", "the tray was started")
        require(machine.ask("status")["settings"]["hasCompletedOnboarding"], "the tray introduces nothing that is done")
        # Run again, it finds what it did: of Claude Code the file was never written, so that is still open.
        machine.write(".claude/settings.json", '{"hooks":"%s"}' % machine.relay_program)
        asked = machine.read(".test/asked")
        again = machine.command("setup", "--dry-run")
        require("It would now: Show it in the panel" in again.stdout and again.stdout.count("It would") == 1, again.stdout)
        require(machine.command("setup", "--yes").returncode == 0, "and nothing fails")
        require(machine.read(".test/asked") == asked, "nothing is asked of the manager twice")


def ends_anywhere():
    """Ctrl-C at each question in turn, and the answers q and Ctrl-D: what was begun is whole, and a later run goes on."""
    for leave, status in (("\x03", 130), ("q\n", 0), ("\x04", 0)):
        answers = 0
        while True:
            with Machine() as machine, Terminal(machine, "setup") as terminal:
                if not walk(terminal, machine, answers):
                    terminal.end(0)
                    break
                before = (machine.units, machine.runs, machine.read(".test/asked"), machine.read(".test/tray"))
                terminal.type(leave)
                text = terminal.end(status)
                require("To go on: vimbrel setup" in text, text)
                after = (machine.units, machine.runs, machine.read(".test/asked"), machine.read(".test/tray"))
                require(before == after, "leaving changes nothing: %s, then %s" % (before, after))
                require(machine.runs == (machine.units == ["vimbrel.service"]), "the service is whole or not there")
                rest = machine.command("setup", "--yes")
                require(rest.returncode == 0 and machine.runs and machine.units == ["vimbrel.service"], rest.stdout)
            answers += 1
        require(answers >= 4, "there were questions")


def holds_signals_back():
    """Ctrl-C while the service manager is at work: the step is finished, then it ends."""
    with Machine() as machine:
        machine.write("slow", "")
        with Terminal(machine, "setup") as terminal:
            terminal.asked("Enable the user service")
            terminal.answer("y")
            eventually(lambda: os.path.exists(machine.file(".test/enabling")), "it is at work")
            terminal.type("\x03")
            require(terminal.process.poll() is None, "it does not leave in the middle")
            os.remove(machine.file("slow"))
            text = terminal.end(130)
            require("starts at login (vimbrel.service); it runs" in text, text)
        require(machine.units == ["vimbrel.service"] and machine.runs, "enabled and started")


def needs_no_package():
    """From a build or a tarball there is no unit: one of the user's own takes its place."""
    with Machine(packaged=False) as machine:
        done = machine.command("setup", "--yes")
        require(done.returncode == 0, done.stdout + done.stderr)
        require(machine.units == ["com.vimbrel.app.service"] and not machine.entry and machine.runs, machine.units)
        require("daemon-reload" in machine.read(".test/asked"), "the manager reads the new unit")
        require("not connected: Claude Code" in done.stdout and "vimbrel agents setup claude" in done.stdout, done.stdout)


def never_both():
    with Machine(packaged=False, manager=False) as machine:
        require(machine.command("setup", "--yes").returncode == 0 and machine.entry and not machine.units, "by the desktop")
        require(machine.runs, "it was started in the background")
        again = machine.command("setup", "--yes")
        require("starts at login (by the desktop); it runs" in again.stdout and again.stdout.count("-> ") == 1, again.stdout)
        # Later a manager comes, and a service is enabled by hand.
        os.remove(machine.file("no-manager"))
        machine.write("packaged", "")
        subprocess.run(["systemctl", "--user", "enable", "vimbrel.service"], env=machine.environment, check=True)
        with Terminal(machine, "setup") as terminal:
            terminal.asked("Both vimbrel.service and an autostart entry", "Remove the autostart entry")
            terminal.answer("y")
            terminal.asked("See how it is connected?")
            terminal.answer("q")
            terminal.end(0)
        require(not machine.entry and machine.units == ["vimbrel.service"], "one is left")


def has_neither():
    with Machine(manager=False, desktop=False) as machine:
        done = machine.command("setup", "--yes")
        require(done.returncode == 0 and machine.runs and not machine.entry and not machine.units, done.stdout)
        require("vimbrel run --lines" in done.stdout and "no desktop here" in done.stdout, done.stdout)


def says_what_fails():
    with Machine() as machine:
        machine.write("broken", "")
        done = machine.command("setup", "--yes")
        require(done.returncode == 1 and "systemctl --user start vimbrel.service failed" in done.stdout, done.stdout)
        eventually(lambda: machine.read(".test/tray"), "the other steps follow all the same")


for trial in (greets, asks_first, connects_everything, ends_anywhere, holds_signals_back, needs_no_package, never_both,
              has_neither, says_what_fails):
    trial()
    print("ok:", trial.__name__, flush=True)
