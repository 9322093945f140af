# SPDX-License-Identifier: Apache-2.0
"""A home on a disk that fills up while the application works and is emptied later: what cannot be written is
refused with a reason or kept until it can be, and a crash on the full disk costs nothing that was on it before."""

import os
import subprocess
import tempfile

from namespaces import enter_namespaces
from sandbox import Refused, Sandbox, claude_line, event, eventually, require, skip


def fill(path):
    with open(path, "wb", buffering=0) as file:
        for size in (65536, 4096, 512, 1):
            try:
                while True:
                    file.write(b"\0" * size)
            except OSError:
                pass


def main():
    enter_namespaces("m")
    disk = tempfile.mkdtemp(prefix="vimbrel-disk-", dir="/tmp")
    logs = tempfile.mkdtemp(prefix="vimbrel-logs-", dir="/tmp")
    try:
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "tmpfs", disk]).returncode:
            skip("a tmpfs cannot be mounted here")
        with Sandbox(disk) as sandbox:
            # The agent's log is on a disk that has room.
            sandbox.environment["CLAUDE_CONFIG_DIR"] = logs
            os.makedirs(logs + "/projects/p")
            log = logs + "/projects/p/s1.jsonl"
            with open(log, "a") as file:
                file.write(claude_line("before", 90))
            sandbox.start()
            eventually(lambda: sandbox.ask("usage.today")["totalTokens"] == 100, "usage is recorded")
            sandbox.ask("settings.set", key="batteryFloorPercent", value=33)

            fill(disk + "/filler")
            try:
                sandbox.ask("settings.set", key="batteryFloorPercent", value=44)
                raise AssertionError("a setting that could not be written was accepted")
            except Refused as refusal:
                require("No space left" in str(refusal), "the refusal says why: %s" % refusal)
            with open(log, "a") as file:
                file.write(claude_line("during", 190))
            require(b'"ok":true' in sandbox.hook(event("s", "working")), "events are taken")
            eventually(lambda: sandbox.ask("usage.today")["totalTokens"] == 300, "usage counts on")

            # Killed while nothing can be written: the next start has what was written before, and reads the log.
            sandbox.kill()
            os.unlink(disk + "/filler")
            sandbox.start()
            require(sandbox.ask("settings.get", key="batteryFloorPercent")["value"] == 33, "settings are kept")
            eventually(lambda: sandbox.ask("usage.today")["totalTokens"] == 300, "usage is complete")

            # Filled again, and emptied while it runs: what was kept in memory reaches the disk by itself.
            fill(disk + "/filler")
            with open(log, "a") as file:
                file.write(claude_line("again", 290))
            eventually(lambda: sandbox.ask("usage.today")["totalTokens"] == 600, "usage counts on")
            os.unlink(disk + "/filler")
            store = sandbox.file(".local/share/Vimbrel")

            def is_on_disk():
                return any(b'"again"' in open(os.path.join(store, name), "rb").read()
                           for name in os.listdir(store) if name.startswith("usage_store."))
            eventually(is_on_disk, "the event is written once there is room")
            require(sandbox.stop() == 0, "it stops with 0")
            data = sorted(os.listdir(store))
            require(not [name for name in data if "unreadable" in name], data)
        print("refused with a reason while full, nothing lost")
    finally:
        subprocess.run(["umount", disk], stderr=subprocess.DEVNULL)
        os.rmdir(disk)
        subprocess.run(["rm", "-rf", logs])


main()
