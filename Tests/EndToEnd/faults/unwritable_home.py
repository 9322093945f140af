# SPDX-License-Identifier: Apache-2.0
"""A home in which nothing can be written any more, under a running application: what cannot be written is refused with
a reason or kept until it can be, and what was there before is there afterwards.

    unwritable_home.py full_disk|read_only_home"""

import os
import stat
import subprocess
import sys
import tempfile

from namespaces import enter_namespaces
from sandbox import Sandbox, claude_line, event, eventually, require, skip

settings = ".config/com.vimbrel.app/settings.json"


def floor(sandbox):
    return sandbox.ask("settings.get", key="batteryFloorPercent")["value"]


def has_tokens(sandbox, count):
    eventually(lambda: sandbox.tokens() == count, "%d tokens are recorded" % count)


def before(sandbox, log):
    sandbox.append(log, claude_line("before", 90))
    sandbox.start()
    has_tokens(sandbox, 100)
    sandbox.ask("settings.set", key="batteryFloorPercent", value=33)


def meanwhile(sandbox, reason):
    """What needs no file goes on."""
    was = sandbox.read(settings)
    refusal = sandbox.refusal("settings.set", key="batteryFloorPercent", value=44)
    require(reason in refusal, "the refusal says why: %s" % refusal)
    require(floor(sandbox) == 33 and sandbox.read(settings) == was, "the old value stays")
    sandbox.is_taken(event("s", "working"))
    eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")


def afterwards(sandbox, tokens):
    sandbox.start()
    require(floor(sandbox) == 33, "settings are kept")
    has_tokens(sandbox, tokens)


def fill(path):
    with open(path, "wb", buffering=0) as file:
        for size in (65536, 4096, 512, 1):
            try:
                while True:
                    file.write(b"\0" * size)
            except OSError:
                pass


def full_disk():
    """It fills up while the application works and is emptied later; a crash meanwhile costs nothing."""
    enter_namespaces("m")
    with tempfile.TemporaryDirectory(dir="/tmp") as disk, tempfile.TemporaryDirectory(dir="/tmp") as logs:
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "tmpfs", disk]).returncode:
            skip("a tmpfs cannot be mounted here")
        try:
            with Sandbox(disk) as sandbox:
                on_a_full_disk(sandbox, disk + "/filler", logs)
        finally:
            subprocess.run(["umount", "-l", disk])


def on_a_full_disk(sandbox, filler, logs):
    # The agent's log is on a disk that has room.
    sandbox.environment["CLAUDE_CONFIG_DIR"] = logs
    log = logs + "/projects/p/s1.jsonl"
    before(sandbox, log)
    fill(filler)
    meanwhile(sandbox, "No space left")
    sandbox.append(log, claude_line("during", 190))
    has_tokens(sandbox, 300)

    # Killed while nothing can be written: the next start has what was written before, and reads the log.
    sandbox.kill()
    os.unlink(filler)
    afterwards(sandbox, 300)

    # Filled again, and emptied while it runs: what was kept in memory reaches the disk by itself.
    fill(filler)
    sandbox.append(log, claude_line("again", 290))
    has_tokens(sandbox, 600)
    os.unlink(filler)
    store = sandbox.file(".local/share/Vimbrel")
    eventually(lambda: any('"again"' in sandbox.read(os.path.join(store, name)) for name in os.listdir(store)
                           if name.startswith("usage_store.")), "the event is written once there is room")
    sandbox.stop()
    require(not [name for name in os.listdir(store) if "unreadable" in name], "no file was given up")


def set_writable(sandbox, writable):
    for directory, _, files in os.walk(sandbox.home, topdown=False):
        for name in files:
            path = os.path.join(directory, name)
            if not stat.S_ISSOCK(os.lstat(path).st_mode):
                os.chmod(path, 0o600 if writable else 0o400)
        os.chmod(directory, 0o700 if writable else 0o500)


def read_only_home():
    if os.geteuid() == 0:  # To root, read-only means nothing.
        rig = os.path.dirname(os.path.abspath(__file__)) + "/../../Component/rig.sh"
        os.execv(rig, [rig, "--user", "nobody", "--", sys.executable, os.path.abspath(__file__), "read_only_home"])
    with Sandbox() as sandbox:
        before(sandbox, ".claude/projects/p/s1.jsonl")
        set_writable(sandbox, False)
        try:
            meanwhile(sandbox, "ermission")
            sandbox.stop()
            # A start without a place for its sockets says what is wrong.
            refused = sandbox.command("run", "--simulate", sandbox.file("world.json"))
            require(refused.returncode == 1 and refused.stderr.strip(), "the start fails with a reason")
            sandbox.report("codex", "working", "unheard")
        finally:
            set_writable(sandbox, True)
        afterwards(sandbox, 100)
        sandbox.stop()


{"full_disk": full_disk, "read_only_home": read_only_home}[sys.argv[1]]()
