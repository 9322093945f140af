# SPDX-License-Identifier: Apache-2.0
"""The live views on a terminal: what is drawn, which keys they take, and that the terminal is given back as it was,
whatever ends them."""

import re
import signal
import termios

from sandbox import Sandbox, eventually, is_stopped, require
from terminal import Terminal

entered = "\x1b[?1049h"
left = "\x1b[?25h\x1b[?1049l"


def is_given_back(view):
    return view.text.endswith(left) and termios.tcgetattr(view.slave) == view.mode


def shown(view):
    """The lines that were drawn last."""
    view.read(0.01)
    return re.sub("\x1b\\[[?0-9;]*[A-Za-z]", "", view.text.split("\x1b[H")[-1]).split("\n")


def steers(sandbox, view):
    require(entered in view.text and not is_given_back(view), "the terminal is taken")
    sandbox.command("hold", "on")
    view.until("Manual hold requested")  # The change was streamed, nothing was typed.
    view.type("p")
    view.until("Protection paused")
    require(sandbox.ask("status")["pauseUntil"], "it is paused")
    view.type("r")
    eventually(lambda: not sandbox.ask("status")["pauseUntil"], "it is resumed")
    view.type("q")
    view.end(0)
    require(view.text.endswith(left), "the screen is given back")


def watches(sandbox):
    sandbox.start()
    with Terminal(sandbox, "watch") as view:
        view.until("Sleep enabled")
        steers(sandbox, view)
    require(sandbox.command("status").returncode == 0, "the application goes on")


def runs(sandbox):
    with Terminal(sandbox, "run", "--simulate", sandbox.file("world.json")) as view:
        view.until("q stop Vimbrel")
        steers(sandbox, view)
    require(sandbox.command("status").returncode == 3, "q stops the application")


def gives_the_terminal_back(sandbox):
    sandbox.start()
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGSEGV, signal.SIGABRT):
        with Terminal(sandbox, "watch") as view:
            view.until("No agents")
            view.process.send_signal(number)
            view.end(128 + number)
            require(is_given_back(view), "the screen after %d: %r" % (number, view.text[-80:]))
    with Terminal(sandbox, "watch") as view:
        view.until("No agents")
        sandbox.kill()
        view.end(1)
        require(left + "vimbrel: Vimbrel has ended" in view.text, view.text)


def comes_back_after_being_stopped(sandbox):
    sandbox.start()
    with Terminal(sandbox, "watch") as view:
        view.until("No agents")
        view.process.send_signal(signal.SIGTSTP)
        eventually(lambda: shown(view) and is_stopped(view.process) and is_given_back(view), "it stops and gives it back")
        view.seen = len(view.text)
        view.process.send_signal(signal.SIGCONT)
        view.until("No agents")
        require(not is_given_back(view), "the terminal is taken again")


def fits_a_tiny_terminal(sandbox):
    sandbox.start()
    sandbox.relay("--agent", "claude", "--state", "working", "--cwd", "/home/somebody/a/rather/long/directory/name")
    with Terminal(sandbox, "watch", columns=40) as view:
        view.until("Claude Code")
        view.resize(20, 3)
        eventually(lambda: max(len(line) for line in shown(view)) <= 20, "no line is longer than the terminal is wide")
        view.type("q")
        view.end(0)


for test in (watches, runs, gives_the_terminal_back, comes_back_after_being_stopped, fits_a_tiny_terminal):
    with Sandbox() as sandbox:
        test(sandbox)
    print("ok:", test.__name__, flush=True)
