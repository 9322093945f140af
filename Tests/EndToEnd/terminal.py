# SPDX-License-Identifier: Apache-2.0
"""A person at a terminal."""

import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time

from sandbox import patience, require


class Terminal:
    """`vimbrel` with these arguments, and a person at its terminal."""

    def __init__(self, machine, *arguments, columns=100):
        master, slave = pty.openpty()
        self.master, self.slave = master, slave
        self.resize(columns, 40)
        self.mode = termios.tcgetattr(slave)
        self.text = ""
        self.seen = 0
        self.process = subprocess.Popen(
            [machine.vimbrel, *arguments], env={**machine.environment, "TERM": "xterm"}, stdin=slave, stdout=slave, stderr=slave,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.slave)
        os.close(self.master)

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def read(self, limit):
        """More output; false when none came within the limit."""
        if not select.select([self.master], [], [], limit)[0]:
            return False
        text = os.read(self.master, 65536).decode(errors="replace")
        self.text += re.sub(r"\x1b\[[0-9;]*m|\r", "", text)
        return True

    def until(self, pattern):
        """What was printed up to the pattern, since the last time that something was waited for."""
        end = time.monotonic() + patience
        while True:
            found = re.search(pattern, self.text[self.seen:])
            if found:
                text = self.text[self.seen:self.seen + found.end()]
                self.seen += found.end()
                return text
            require(time.monotonic() < end, "%r does not come: %r" % (pattern, self.text[self.seen:]))
            if not self.read(0.1):
                require(self.process.poll() is None or self.read(0), "it ended: %r" % self.text[self.seen:])

    question = r"\[(Y/n|y/N)/q\] "
    waiting = r"Enter\s+goes\s+on\s+without\."

    def asked(self, *words):
        text = self.until(self.question)
        for word in words:
            require(word in " ".join(text.split()), "%r in %r" % (word, text))

    def type(self, text):
        os.write(self.master, text.encode())

    def answer(self, text):
        self.type(text + "\n")

    def end(self, status):
        """Its exit status must be this, which is 128 more than the signal that ended it; what it printed last is the result."""
        limit = time.monotonic() + patience
        while self.process.poll() is None:
            self.read(0.05)
            require(time.monotonic() < limit, "it does not end: %r" % self.text[self.seen:])
        while self.read(0):
            pass
        ended = self.process.returncode if self.process.returncode >= 0 else 128 - self.process.returncode
        require(ended == status, "status %s: %s" % (ended, self.text))
        require(termios.tcgetattr(self.slave) == self.mode, "the terminal is as it was")
        return self.text[self.seen:]
