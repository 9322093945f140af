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
# Paths are seen in the pictures.
HOME = PROGRAMS.parent / "home/user"
os.environ.update(HOME=str(HOME), PATH=f"{HOME}/.local/bin:{os.environ['PATH']}")
OUT = pathlib.Path(sys.argv[1])
SCALE = int(sys.argv[2])
WANTED = sys.argv[3:]

LAPTOP = {"batteryPercent": 71, "isCharging": False, "isOnAC": False, "isLowPowerMode": False,
          "timeRemainingMinutes": 190}


def run(*command, **options):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=60, **options)


def write_lines(path, lines):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("".join(json.dumps(line) + "\n" for line in lines))


def stamp(moment):
    return moment.astimezone(timezone.utc).strftime("%Y-%m-%dT%H:%M:%S.000Z")


def write_usage():
    """Two weeks of two agents' own logs, from which the application reads what was used."""
    now = datetime.now(timezone.utc)
    turns = []
    for back, amount in enumerate(reversed([3, 5, 0, 2, 7, 9, 4, 6, 1, 0, 8, 5, 11, 6])):
        for turn in range(amount):
            turns.append({
                "type": "assistant", "timestamp": stamp(now - timedelta(days=back, minutes=3 * turn)),
                "sessionId": f"session-{back}", "requestId": f"r{back}-{turn}", "cwd": "/home/user/engine",
                "message": {"id": f"m{back}-{turn}", "role": "assistant",
                            "model": ["claude-3-5-sonnet-20241022", "claude-opus-5"][turn % 2],
                            "usage": {"input_tokens": 900 + 100 * turn, "output_tokens": 2400 + 350 * turn,
                                      "cache_read_input_tokens": 61000 + 9000 * turn,
                                      "cache_creation_input_tokens": 3000}}})
    write_lines(HOME / ".claude/projects/-home-user-engine/two-weeks.jsonl", turns)
    for back, amount in enumerate(reversed([1, 0, 0, 3, 4, 2, 0, 5, 2, 0, 3, 6, 4, 3])):
        day = now - timedelta(days=back)
        lines = [{"timestamp": stamp(day), "type": "session_meta", "payload": {"id": f"x-{back}", "cwd": "/home/user/infra"}},
                 {"timestamp": stamp(day), "type": "turn_context", "payload": {"model": "gpt-4o"}}]
        for turn in range(1, amount + 1):
            used = {"input_tokens": 88000, "cached_input_tokens": 61000, "output_tokens": 3100,
                    "reasoning_output_tokens": 900, "total_tokens": 91100}
            lines.append({"timestamp": stamp(day - timedelta(minutes=amount - turn)), "type": "event_msg", "payload": {
                "type": "token_count",
                "info": {"total_token_usage": {key: value * turn for key, value in used.items()},
                         "last_token_usage": used, "model_context_window": 258400},
                "rate_limits": {"limit_id": "codex", "plan_type": "plus", "primary": {
                    "used_percent": 84.0, "window_minutes": 10080,
                    "resets_at": int((now + timedelta(days=2)).timestamp())}}}})
        write_lines(HOME / f".codex/sessions/{day:%Y/%m/%d}/rollout-{day:%Y-%m-%dT%H-%M-%S}-x-{back}.jsonl", lines)


def install_agents():
    """Two agents, one of them connected."""
    for name, version in (("claude", "2.1.14 (Claude Code)"), ("codex", "codex-cli 0.98.0")):
        program = HOME / ".local/bin" / name
        program.parent.mkdir(parents=True, exist_ok=True)
        program.write_text(f"#!/bin/sh\necho '{version}'\n")
        program.chmod(0o755)
    setup = json.loads(run(VIMBREL, "agents", "setup", "claude", "--no-wait", "--json").stdout)
    (HOME / ".claude").mkdir(exist_ok=True)
    (HOME / ".claude/settings.json").write_text(setup["currentSetupSnippet"])


def write_history():
    """What kept this machine awake in the last days, as the application keeps it."""
    path = HOME / ".local/share/Vimbrel/history.jsonl"
    midnight = datetime.now().astimezone().replace(hour=0, minute=0, second=0, microsecond=0)

    def at(days, hours):
        return stamp(midnight - timedelta(days=days) + timedelta(hours=hours))

    episodes = [(6, 9.2, 11.5, "finished", None, 90, 71), (6, 13.1, 17.8, "finished", None, 70, 44),
                (5, 10.0, 12.2, "finished", None, 95, 80), (4, 14.5, 18.9, "blocked", "Battery level below safety cutoff", 40, 15),
                (3, 8.8, 9.4, "finished", None, 99, 96), (3, 22.4, 26.3, "finished", None, 100, 62),
                (1, 9.0, 15.5, "finished", None, 98, 41), (1, 20.1, 21.0, "interrupted", None, 60, 55)]
    lines = []
    for days, start, end, ending, block, first, last in episodes:
        lines.append({"startedAt": at(days, start), "endedAt": at(days, end), "ending": ending,
                      "reasons": ["Claude Code working"], "workingSeconds": {"claude": (end - start) * 3600},
                      "counts": [{"at": at(days, start), "count": 1}], "wasDeepHoldWanted": days in (3, 4),
                      "batteryAtStart": first, "batteryAtEnd": last, **({"block": block} if block else {})})
    write_lines(path, lines)


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
        run("rm", "-rf", HOME)
        HOME.mkdir(parents=True)
        install_agents()
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


def capture(name, area, shape):
    """What is on the screen there, with nothing where the window's round corners let the screen through."""
    x, y, width, height = area
    target = OUT / f"{name}.png"
    corners = []
    if shape == "popover":
        corners = [0, 10 * SCALE]
    elif shape == "pill":
        # It hangs from the screen's edge.
        corners = [-height // 2, round(height * 0.45)]
    mask = []
    if corners:
        top, radius = corners
        mask = ["(", "-size", f"{width}x{height}", "xc:none", "-fill", "white", "-draw",
                f"roundrectangle 0,{top} {width - 1},{height - 1} {radius},{radius}", ")",
                "-compose", "DstIn", "-composite"]
    run("import", "-window", "root", "-crop", f"{width}x{height}+{x}+{y}", "+repage", OUT / "whole.miff")
    run("convert", OUT / "whole.miff", "+dither", "-colors", "96", "-alpha", "set", *mask, "-strip",
        "-depth", "8", "-define", "png:compression-level=9", f"PNG8:{target}" if not corners else f"PNG32:{target}")
    (OUT / "whole.miff").unlink(missing_ok=True)
    print(target.name, f"{width}x{height}", target.stat().st_size)


def picture(name, what, theme, machine, options=(), then=None, wait=1.5, font_dpi=96, language=""):
    """One picture of the popover, the pill or a page."""
    if WANTED and not any(part in name for part in WANTED):
        return
    with_machine = machine()
    command = [TRAY, "--reduce-motion", "--theme", theme, *options]
    if what != "pill":
        command += ["--open", what]
    tray = subprocess.Popen(command, env={**os.environ, "QT_FONT_DPI": str(font_dpi), "LC_ALL": "C.UTF-8", "LANGUAGE": language})
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
        capture(name + suffix, found, what)
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
        picture("window-introduction", "introduction", theme,
                lambda: Machine(settings=[("hasCompletedOnboarding", "off")]), wait=3)
        picture("window-not-running", "settings", theme, lambda: Machine(running=False))
    if SCALE == 1:
        picture("popover-right-to-left", "popover", "light", lambda: Machine(prepare=working), options=["-reverse"],
                then=keys("Left"))
        picture("window-settings-right-to-left", "settings", "light", lambda: Machine(), options=["-reverse"])
        picture("popover-large-text", "popover", "light", lambda: Machine(prepare=working),
                font_dpi=154)
        picture("window-settings-large-text", "settings", "light", lambda: Machine(), font_dpi=154)
        picture("popover-german", "popover", "light", lambda: Machine(prepare=working), then=keys("Right"),
                language="de")
        picture("window-history-german", "history", "light", lambda: Machine(prepare=working), wait=3, language="de")


main()
