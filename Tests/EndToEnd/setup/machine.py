# SPDX-License-Identifier: Apache-2.0
"""A user's machine for `vimbrel setup`: a home, and a service manager that keeps its units as files, notes what it is
asked, and starts the application on a simulated machine."""

import os
import shutil
import signal

from sandbox import Sandbox

systemctl = r"""#!/bin/sh
# systemctl --user, as far as setup needs it. The packaged unit is there when $HOME/packaged exists.
shift
state=$HOME/.test
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
        self.vimbrel = shutil.copy(self.vimbrel, self.file("bin/vimbrel"))
        self.relay_program = shutil.copy(self.relay_program, self.file("bin/vimbrel-relay"))
        self.environment.update(VIMBREL=self.vimbrel, XDG_CONFIG_DIRS=self.file("xdg"))
        if desktop:
            self.environment["WAYLAND_DISPLAY"] = "wayland-of-a-test"
        self.program("systemctl", systemctl)
        self.program("wl-copy", "cat > $HOME/.test/clipboard")
        self.program("vimbrel-tray", "echo started >> $HOME/.test/tray")
        self.program("claude", "echo '2.1.0 (Claude Code)'")
        os.mkdir(self.file(".test"))
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
