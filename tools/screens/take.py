#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Takes the pictures of docs/screens: every window in its states, of the real programs on simulated machines.

Runs inside Tests/Desktop/display.sh, once for each scale; screens.sh does it all.
"""
import json
import os
import pathlib
import subprocess
import sys
import time
from datetime import datetime, timedelta, timezone

PROGRAMS = pathlib.Path(os.environ["VIMBREL_BUILD"]) / "Sources"
VIMBREL = PROGRAMS / "VimbrelApp/vimbrel"
RELAY = PROGRAMS / "VimbrelRelay/vimbrel-relay"
TRAY = PROGRAMS / "VimbrelTray/vimbrel-tray"
HOME = pathlib.Path(os.environ["HOME"])
OUT = pathlib.Path(sys.argv[1])
SCALE = int(sys.argv[2])
WANTED = sys.argv[3:]

LAPTOP = {"batteryPercent": 71, "isCharging": False, "isOnAC": False, "isLowPowerMode": False,
          "timeRemainingMinutes": 190}


def run(*command, **options):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=60, **options)


def write_usage():
    """Two weeks of an agent's own logs, from which the application reads what was used."""
    folder = HOME / ".claude/projects/-home-user-engine"
    folder.mkdir(parents=True, exist_ok=True)
    now = datetime.now(timezone.utc)
    amounts = [3, 5, 0, 2, 7, 9, 4, 6, 1, 0, 8, 5, 11, 6]
    with open(folder / "two-weeks.jsonl", "w") as log:
        for back, amount in enumerate(reversed(amounts)):
            for turn in range(amount):
                at = (now - timedelta(days=back, minutes=3 * turn)).strftime("%Y-%m-%dT%H:%M:%S.000Z")
                log.write(json.dumps({
                    "type": "assistant", "timestamp": at, "sessionId": f"session-{back}",
                    "requestId": f"r{back}-{turn}", "cwd": "/home/user/engine",
                    "message": {"id": f"m{back}-{turn}", "role": "assistant",
                                "model": ["claude-sonnet-4-5", "claude-opus-4-5"][turn % 2],
                                "usage": {"input_tokens": 900 + 100 * turn, "output_tokens": 2400 + 350 * turn,
                                          "cache_read_input_tokens": 61000 + 9000 * turn,
                                          "cache_creation_input_tokens": 3000}}}) + "\n")


def write_history():
    """What kept this machine awake in the last days, as the application keeps it."""
    path = HOME / ".local/share/Vimbrel/history.jsonl"
    path.parent.mkdir(parents=True, exist_ok=True)
    midnight = datetime.now().astimezone().replace(hour=0, minute=0, second=0, microsecond=0)

    def stamp(days, hours):
        return (midnight - timedelta(days=days) + timedelta(hours=hours)).astimezone(timezone.utc).strftime(
            "%Y-%m-%dT%H:%M:%SZ")

    episodes = [(6, 9.2, 11.5, "finished", None, 90, 71), (6, 13.1, 17.8, "finished", None, 70, 44),
                (5, 10.0, 12.2, "finished", None, 95, 80), (4, 14.5, 18.9, "blocked", "Battery level below safety cutoff", 40, 15),
                (3, 8.8, 9.4, "finished", None, 99, 96), (3, 22.4, 26.3, "finished", None, 100, 62),
                (1, 9.0, 15.5, "finished", None, 98, 41), (1, 20.1, 21.0, "interrupted", None, 60, 55)]
    with open(path, "w") as log:
        for days, start, end, ending, block, first, last in episodes:
            episode = {"startedAt": stamp(days, start), "endedAt": stamp(days, end), "ending": ending,
                       "reasons": ["Claude Code working"], "workingSeconds": {"claude": (end - start) * 3600},
                       "counts": [{"at": stamp(days, start), "count": 1}], "wasDeepHoldWanted": days in (3, 4),
                       "batteryAtStart": first, "batteryAtEnd": last}
            if block:
                episode["block"] = block
            log.write(json.dumps(episode) + "\n")


def event(agent, state, session, folder, *more):
    place = HOME / folder
    place.mkdir(parents=True, exist_ok=True)
    run(RELAY, "--agent", agent, "--state", state, "--session-id", session, *more, cwd=place)


def working():
    event("claude", "working", "c1", "engine")
    event("claude", "waiting", "c2", "site")
    event("codex", "waiting", "x1", "infra")
    event("gemini", "completed", "g1", "notes")


class Machine:
    """The application on a simulated machine, in a home of its own."""

    def __init__(self, power=None, world=None, settings=(), prepare=None, usage=True, running=True):
        for name in (".local", ".config", ".claude"):
            run("rm", "-rf", HOME / name)
        if usage:
            write_usage()
            write_history()
        self.file = HOME / "world.json"
        self.file.write_text(json.dumps({"power": power or LAPTOP, **(world or {})}))
        self.process = None
        if running:
            self.start()
            for key, value in (("hasCompletedOnboarding", "on"), *settings):
                run(VIMBREL, "settings", "set", key, value)
            if prepare:
                prepare()

    def start(self):
        self.process = subprocess.Popen([VIMBREL, "run", "--lines", "--simulate", self.file],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while run(VIMBREL, "status").returncode != 0:
            time.sleep(0.05)

    def end(self):
        if self.process:
            self.process.terminate()
            self.process.wait()


def geometry(window):
    """Position on the screen and size, without the window manager's frame."""
    found = {}
    for line in run("xwininfo", "-id", window).stdout.splitlines():
        key, colon, value = line.strip().partition(":")
        if colon:
            found[key] = value.strip()
    return tuple(int(found[key]) for key in ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"))


def largest_window():
    windows = run("xdotool", "search", "--onlyvisible", "--class", "vimbrel-tray").stdout.split()
    return max((geometry(window) for window in windows), key=lambda each: each[2] * each[3], default=None)


def capture(name, area, margin=0):
    x, y, width, height = area
    x, y = max(x - margin, 0), max(y - margin, 0)
    target = OUT / f"{name}.png"
    run("import", "-window", "root", "-crop", f"{width + 2 * margin}x{height + 2 * margin}+{x}+{y}", "+repage",
        "+dither", "-colors", "64", "-strip", target)
    print(target.name, f"{width}x{height}")


def picture(name, what, theme, machine, options=(), then=None, wait=1.5, font_dpi=96):
    """One picture of the popover, the pill or a page."""
    if WANTED and not any(part in name for part in WANTED):
        return
    with_machine = machine()
    command = [TRAY, "--reduce-motion", "--theme", theme, *options]
    if what != "pill":
        command += ["--open", what]
    tray = subprocess.Popen(command, env={**os.environ, "QT_FONT_DPI": str(font_dpi)})
    time.sleep(wait)
    if then:
        then()
        time.sleep(0.7)
    if what != "popover":
        run("xdotool", "mousemove", "5", "700")
    time.sleep(0.4)
    suffix = f"-{theme}" + ("@2x" if SCALE == 2 else "")
    found = largest_window()
    if found:
        capture(name + suffix, found)
    else:
        print(f"{name}: nothing is on the screen", file=sys.stderr)
    tray.terminate()
    tray.wait()
    with_machine.end()


def keys(*names):
    return lambda: run("xdotool", "key", *names)


def main():
    OUT.mkdir(parents=True, exist_ok=True)
    low = {**LAPTOP, "batteryPercent": 12, "timeRemainingMinutes": 25}
    for theme in ("light", "dark"):
        picture("popover-working", "popover", theme, lambda: Machine(prepare=working), then=keys("Right"))
        picture("popover-idle", "popover", theme, lambda: Machine(power={"isOnAC": True}, usage=False))
        picture("popover-paused", "popover", theme,
                lambda: Machine(prepare=lambda: (working(), run(VIMBREL, "pause", "45m"))))
        picture("popover-low-battery", "popover", theme, lambda: Machine(power=low, prepare=working))
        picture("popover-hot", "popover", theme,
                lambda: Machine(world={"thermalState": "critical"}, prepare=working))
        picture("popover-not-held", "popover", theme,
                lambda: Machine(world={"assertions": {"system": "fail"}}, prepare=working))
        picture("popover-not-running", "popover", theme, lambda: Machine(running=False))
        picture("pill-waiting", "pill", theme,
                lambda: Machine(settings=[("notchAlwaysVisible", "on")],
                                prepare=lambda: event("codex", "waiting", "x1", "infra")))
        picture("pill-working", "pill", theme,
                lambda: Machine(settings=[("notchAlwaysVisible", "on")], prepare=working))
        for page in ("history", "usage", "agents", "settings", "diagnostics"):
            picture(f"window-{page}", page, theme, lambda: Machine(prepare=working), wait=3)
        picture("window-introduction", "agents", theme,
                lambda: Machine(settings=[("hasCompletedOnboarding", "off")]), wait=3)
        picture("window-not-running", "settings", theme, lambda: Machine(running=False))
    if SCALE == 1:
        picture("popover-right-to-left", "popover", "light", lambda: Machine(prepare=working), options=["-reverse"],
                then=keys("Left"))
        picture("window-settings-right-to-left", "settings", "light", lambda: Machine(), options=["-reverse"])
        picture("popover-large-text", "popover", "light", lambda: Machine(prepare=working),
                font_dpi=154)
        picture("window-settings-large-text", "settings", "light", lambda: Machine(), font_dpi=154)


main()
