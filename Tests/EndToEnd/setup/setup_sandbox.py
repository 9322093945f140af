# SPDX-License-Identifier: Apache-2.0
"""A user's machine for `vimbrel setup`: a home, a terminal to type at, and a service manager that keeps its units as
files, notes what it is asked, and starts the application on a simulated machine."""

import fcntl
import os
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import termios
import time

from sandbox import Sandbox, patience, require

systemctl = r"""#!/bin/sh
# systemctl --user, as far as setup needs it. The packaged unit is there when $HOME/packaged exists.
shift
state=$HOME/.manager
wants=$HOME/.config/systemd/user/default.target.wants
mkdir -p "$state"
[ -e "$HOME/no-manager" ] && exit 1
case $1 in show) ;; *) echo "$*" >> "$state/asked" ;; esac
[ -e "$HOME/slow" ] && [ "$1" = enable ] && { : > "$state/enabling"; while [ -e "$HOME/slow" ]; do sleep 0.02; done; }
known() { [ "$1" = vimbrel.service ] && [ -e "$HOME/packaged" ] || [ -e "$HOME/.config/systemd/user/$1" ]; }
alive() { [ -e "$state/pid" ] && kill -0 "$(cat "$state/pid")" 2>/dev/null; }
case $1 in
  show)
    case "$2 $3" in
      *=Version*) echo 252 ;;
      *LoadState*) known "$2" && echo loaded || echo not-found ;;
      *UnitFileState*) [ -L "$wants/$2" ] && echo enabled || { known "$2" && echo disabled; } ;;
      *ActiveState*) alive && echo active || echo inactive ;;
    esac ;;
  enable)
    known "$2" || exit 1
    mkdir -p "$wants"; ln -sf "/usr/lib/systemd/user/$2" "$wants/$2" ;;
  start | restart)
    [ -e "$HOME/broken" ] && exit 1
    known "$2" || exit 1
    [ "$1" = restart ] && alive && { kill "$(cat "$state/pid")"; while alive; do sleep 0.02; done; }
    setsid "$VIMBREL" run --lines --simulate "$HOME/world.json" >/dev/null 2>&1 </dev/null &
    echo $! > "$state/pid"
    until "$VIMBREL" status >/dev/null 2>&1; do sleep 0.02; done ;;
esac
exit 0
"""


class Machine(Sandbox):
    """An installation of its own, with the relay and a tray. `packaged`: whether the package's user unit is there."""

    def __init__(self, packaged=True, manager=True, desktop=True):
        super().__init__()
        os.makedirs(self.file("bin"))
        for attribute, name in (("vimbrel", "vimbrel"), ("relay_program", "vimbrel-relay")):
            shutil.copy(getattr(self, attribute), self.file("bin/" + name))
            setattr(self, attribute, self.file("bin/" + name))
        self.environment.update(PATH=self.file("bin") + ":/usr/bin:/bin", VIMBREL=self.vimbrel,
                                XDG_CONFIG_DIRS=self.file("xdg"), TERM="xterm")
        if desktop:
            self.environment["WAYLAND_DISPLAY"] = "wayland-of-a-test"
        self.program("systemctl", systemctl)
        self.program("wl-copy", "#!/bin/sh\ncat > $HOME/clipboard\n")
        self.program("vimbrel-tray", "#!/bin/sh\necho started >> $HOME/tray\n")
        self.program("claude", "#!/bin/sh\necho '2.1.0 (Claude Code)'\n")
        self.write("xdg/autostart/vimbrel-tray-autostart.desktop", "")
        self.write(".claude/settings.json", "{}")
        if packaged:
            self.write("packaged", "")
        if not manager:
            self.write("no-manager", "")

    def __exit__(self, *how):
        try:
            os.kill(self.ask("version")["pid"], signal.SIGKILL)
        except OSError:
            pass
        super().__exit__(*how)

    def program(self, name, text):
        self.write("bin/" + name, text)
        os.chmod(self.file("bin/" + name), 0o755)

    def write(self, name, text):
        os.makedirs(os.path.dirname(self.file(name)), exist_ok=True)
        with open(self.file(name), "w") as file:
            file.write(text)

    def read(self, name):
        try:
            with open(self.file(name)) as file:
                return file.read()
        except FileNotFoundError:
            return ""

    @property
    def entry(self):
        return os.path.exists(self.file(".config/autostart/com.vimbrel.app.desktop"))

    @property
    def units(self):
        """Those that are enabled."""
        try:
            return sorted(os.listdir(self.file(".config/systemd/user/default.target.wants")))
        except FileNotFoundError:
            return []

    @property
    def runs(self):
        return self.command("status").returncode == 0

    def others(self):
        """Every file of the home that is neither Vimbrel's own nor the test's."""
        found = {}
        for folder, _, names in os.walk(self.home):
            if any(part in folder + "/" for part in ("/Vimbrel/", "/com.vimbrel.app/", "/.manager/", "/bin/")):
                continue
            for name in names:
                path = os.path.join(folder, name)
                if "com.vimbrel" not in name and not os.path.islink(path) and name not in ("clipboard", "tray", "stderr", "world.json"):
                    with open(path, "rb") as file:
                        found[path] = file.read()
        return found


class Terminal:
    """`vimbrel` with these arguments, and a person at its terminal."""

    def __init__(self, machine, *arguments, columns=100):
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 40, columns, 0, 0))
        self.mode = termios.tcgetattr(slave)
        self.master, self.slave = master, slave
        self.text = ""
        self.seen = 0
        self.process = subprocess.Popen(
            [machine.vimbrel, *arguments], env=machine.environment, stdin=slave, stdout=slave, stderr=slave,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.slave)
        os.close(self.master)

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
        """Its exit status must be this; what it printed last is the result."""
        limit = time.monotonic() + patience
        while self.process.poll() is None:
            self.read(0.05)
            require(time.monotonic() < limit, "it does not end: %r" % self.text[self.seen:])
        while self.read(0):
            pass
        require(self.process.returncode == status, "status %s: %s" % (self.process.returncode, self.text))
        require(termios.tcgetattr(self.slave) == self.mode, "the terminal is as it was")
        return self.text[self.seen:]
