# SPDX-License-Identifier: Apache-2.0
"""Two floods of hook events, half of them with a session of their own, garbage in between. Every event is answered,
the table stays bounded, the control socket answers during the flood, and the second flood takes no more memory."""

import os
import threading
import time

from sandbox import Baseline, Sandbox, event, require

# Half of them fill the table of sessions, which takes 10,000.
events = int(os.environ.get("VIMBREL_EVENTS", "22000"))
senders = 8


class Flood:
    """All events once; the sessions of the first half have names of their own."""

    def __init__(self, sandbox, name):
        self.sandbox = sandbox
        self.name = name
        self.failures = []
        self.ended = threading.Event()
        self.slowest = 0.0
        begin = time.monotonic()
        threads = [threading.Thread(target=self.guarded, args=(self.send, sender)) for sender in range(senders)]
        watcher = threading.Thread(target=self.guarded, args=(self.watch,))
        for thread in [*threads, watcher]:
            thread.start()
        for thread in threads:
            thread.join()
        self.took = time.monotonic() - begin
        self.ended.set()
        watcher.join()
        require(not self.failures, self.failures)

    def guarded(self, body, *arguments):
        try:
            body(*arguments)
        except Exception as error:  # told by the thread that may fail
            self.failures.append(error)

    def send(self, sender):
        for number in range(sender, events, senders):
            if number % 500 == 7:
                self.sandbox.hook(os.urandom(200))
                continue
            session = "%s%d" % (self.name, number if number < events // 2 else number % 50)
            self.sandbox.is_taken(event(session, "working" if number % 3 else "idle"))

    def watch(self):
        control = self.sandbox.control()
        while not self.ended.wait(0.05):
            before = time.monotonic()
            control.ask("version")
            self.slowest = max(self.slowest, time.monotonic() - before)
        control.close()


def main():
    with Sandbox() as sandbox:
        sandbox.start()
        empty = Baseline(sandbox)
        first = Flood(sandbox, "first")
        sandbox.hook(event("last", "working"))
        sandbox.session("last", "working")
        require(len(sandbox.sessions()) <= 10_000, "the table is bounded")
        full = Baseline(sandbox)
        # A table of ten thousand sessions, and once its answer to a client.
        grown = empty.require_kept(memory_slack=64 * 1024)

        second = Flood(sandbox, "second")
        sessions = sandbox.sessions()
        require(len(sessions) <= 10_000, "%d sessions" % len(sessions))
        again = full.require_kept(memory_slack=8 * 1024)
        sandbox.stop()
        print("2 x %d events, %.0f and %.0f a second; slowest answer of the control socket meanwhile %.0f ms; "
              "%d sessions; %d kB more after the first flood, %d kB more after the second"
              % (events, events / first.took, events / second.took, max(first.slowest, second.slowest) * 1000,
                 len(sessions), grown, again))


main()
