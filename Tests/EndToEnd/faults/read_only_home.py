# SPDX-License-Identifier: Apache-2.0
"""A home that becomes read-only, or belongs to somebody else, under a running application and before its start: it
says so, goes on with what needs no file, and loses nothing of what was there."""

import os
import stat
import subprocess
import sys

from sandbox import Refused, Sandbox, claude_line, event, eventually, require, skip


def set_writable(sandbox, writable):
    for directory, _, files in os.walk(sandbox.home, topdown=False):
        for name in files:
            path = os.path.join(directory, name)
            if not stat.S_ISSOCK(os.lstat(path).st_mode):
                os.chmod(path, 0o600 if writable else 0o400)
        os.chmod(directory, 0o700 if writable else 0o500)


def as_nobody():
    """Read-only means nothing to root: the test runs as nobody then."""
    if os.geteuid() != 0:
        return
    for name in ("VIMBREL_PROGRAM", "VIMBREL_RELAY_PROGRAM"):
        path = os.environ[name]
        if subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "test", "-x", path]).returncode:
            copy = "/tmp/vimbrel-programs-%d" % os.getpid()
            os.makedirs(copy, mode=0o755, exist_ok=True)
            os.chmod(copy, 0o755)
            subprocess.run(["install", "-m", "755", path, copy], check=True)
            os.environ[name] = os.path.join(copy, os.path.basename(path))
            os.environ["VIMBREL_COPIES"] = copy
    originals = (os.path.abspath(__file__), sys.modules["sandbox"].__file__)
    scripts = "/tmp/vimbrel-scripts-%d" % os.getpid()
    os.makedirs(scripts, mode=0o755)
    os.chmod(scripts, 0o755)
    for original in originals:
        subprocess.run(["install", "-m", "644", original, scripts], check=True)
    status = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", sys.executable,
                             os.path.join(scripts, "read_only_home.py")]).returncode
    subprocess.run(["rm", "-rf", scripts, *([os.environ["VIMBREL_COPIES"]] if "VIMBREL_COPIES" in os.environ else [])])
    sys.exit(status)


def main():
    as_nobody()
    if os.geteuid() == 0:
        skip("only another user than root is stopped by permissions")
    with Sandbox() as sandbox:
        log = sandbox.file(".claude/projects/p/s1.jsonl")
        os.makedirs(os.path.dirname(log))
        with open(log, "w") as file:
            file.write(claude_line("m1", 90))
        sandbox.start()
        eventually(lambda: sandbox.ask("usage.today")["totalTokens"] == 100, "usage is recorded")
        sandbox.ask("settings.set", key="batteryFloorPercent", value=33)
        with open(sandbox.file(".config/com.vimbrel.app/settings.json")) as file:
            before = file.read()

        set_writable(sandbox, False)
        try:
            try:
                sandbox.ask("settings.set", key="batteryFloorPercent", value=44)
                raise AssertionError("a setting that could not be written was accepted")
            except Refused as refusal:
                require("ermission" in str(refusal), "the refusal says why: %s" % refusal)
            require(sandbox.ask("settings.get", key="batteryFloorPercent")["value"] == 33, "the old value stays")
            require(b'"ok":true' in sandbox.hook(event("s", "working")), "events are taken")
            eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")
            with open(sandbox.file(".config/com.vimbrel.app/settings.json")) as file:
                require(file.read() == before, "the settings file is as it was")
            require(sandbox.stop() == 0, "it stops with 0")

            # A start without a place for its sockets says what is wrong.
            refused = sandbox.command("run", "--simulate", sandbox.file("world.json"))
            require(refused.returncode == 1 and refused.stderr.strip(), "the start fails with a reason")
            require(sandbox.relay("--agent", "codex", "--state", "working") == 0, "the relay exits with 0")
        finally:
            set_writable(sandbox, True)

        sandbox.start()
        require(sandbox.ask("settings.get", key="batteryFloorPercent")["value"] == 33, "settings are kept")
        require(sandbox.ask("usage.today")["totalTokens"] == 100, "usage is kept")
        require(sandbox.stop() == 0, "it stops with 0")
    print("refused with a reason while read-only, nothing lost")


main()
