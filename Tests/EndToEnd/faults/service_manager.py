# SPDX-License-Identifier: Apache-2.0
"""What a service manager sees of the application: ready once it answers, signs of life for as long as its main loop
turns and none when it does not, and the announcement of its end."""

import os
import select
import signal
import socket
import time

from sandbox import Sandbox, eventually, is_stopped, require

interval = 0.2


def main():
    with Sandbox() as sandbox:
        path = sandbox.file("notify")
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        manager.bind(path)
        sandbox.environment["NOTIFY_SOCKET"] = path
        # The manager gives up on a service that is silent for as long as this; half of it is the custom.
        sandbox.environment["WATCHDOG_USEC"] = str(int(2 * interval * 1e6))

        def message(limit):
            return manager.recv(4096).decode() if select.select([manager], [], [], limit)[0] else None

        sandbox.launch()
        require(message(60) == "READY=1", "ready comes first")
        require(sandbox.ask("version"), "ready means that it answers")
        for _ in range(5):
            require(message(60) == "WATCHDOG=1", "a sign of life")

        os.kill(sandbox.process.pid, signal.SIGSTOP)
        eventually(lambda: is_stopped(sandbox.process), "it is stopped")
        while message(0):
            pass
        require(message(5 * interval) is None, "no sign of life from a main loop that stands still")
        os.kill(sandbox.process.pid, signal.SIGCONT)
        require(message(60) == "WATCHDOG=1", "and again when it turns")

        sandbox.process.send_signal(signal.SIGTERM)
        end = time.monotonic() + 60
        while (text := message(60)) == "WATCHDOG=1" and time.monotonic() < end:
            pass
        require(text == "STOPPING=1", "the end is announced: %s" % text)
        require(sandbox.process.wait(timeout=60) == 0, "it stops with 0")
    print("ready, alive while the loop turns, silent while it stands, stopping")


main()
