#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The completions as the three shells really answer: completions_test.py COMPLETIONS-DIRECTORY"""
import os
import pathlib
import pty
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

DIRECTORY = pathlib.Path(sys.argv[1]).resolve()

# line -> words that must be offered, words that must not
CASES = {
    "vimbrel ": ({"run", "status", "settings", "usage"}, {"list", "claude"}),
    "vimbrel st": ({"status"}, {"run"}),
    "vimbrel settings ": ({"list", "get", "set", "reset"}, {"status"}),
    "vimbrel settings set only": ({"onlyOnAC"}, {"masterEnabled"}),
    "vimbrel settings set onlyOnAC ": ({"on", "off"}, {"onlyOnAC"}),
    "vimbrel settings set batteryFloorPercent ": ({"5", "15", "50"}, {"on"}),
    "vimbrel usage daily --agent ": ({"claude", "codex", "aider"}, {"custom", "daily"}),
    "vimbrel usage daily --s": ({"--since"}, {"--until"}),
    "vimbrel hold ": ({"on", "off"}, {"status"}),
    "vimbrel status --j": ({"--json"}, set()),
    "vimbrel agents setup ": ({"claude", "codex", "gemini", "opencode", "antigravity", "cursor", "windsurf", "aider"}, {"custom"}),
    "vimbrel agents test wind": ({"windsurf"}, {"claude"}),
    "vimbrel settings get notch": ({"notchEnabled", "notchAlwaysVisible"}, {"onlyOnAC"}),
    "vimbrel settings set releaseDelaySeconds ": ({"30"}, {"on"}),
    "vimbrel status --format ": ({"plain", "waybar", "i3blocks", "polybar"}, {"--json"}),
    "vimbrel usage export --format ": ({"json", "prometheus", "otlp-json"}, set()),
    "vimbrel budgets set ": ({"daily", "weekly", "monthly"}, {"claude"}),
    "vimbrel budgets set daily --agent ": ({"claude", "aider"}, {"daily"}),
    "vimbrel setup --": ({"--yes", "--dry-run"}, {"--json"}),
    "vimbrel-relay --state ": ({"working", "idle"}, {"claude"}),
    "vimbrel-relay --agent c": ({"claude", "codex", "cursor"}, {"aider"}),
}


class Bash:
    SCRIPT = """
source "$1/vimbrel.bash"
COMP_LINE=$2 COMP_POINT=${#2}
read -ra COMP_WORDS <<<"$2"
[[ $2 != *' ' ]] || COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
function=$(complete -p "${COMP_WORDS[0]}" | sed 's/.*-F \\([^ ]*\\).*/\\1/')
$function
printf '%s\\n' "${COMPREPLY[@]}"
"""

    def offered(self, line: str) -> set[str]:
        result = subprocess.run(["bash", "-c", self.SCRIPT, "bash", DIRECTORY, line], capture_output=True, text=True, check=False)
        assert not result.stderr, result.stderr
        return set(result.stdout.split())


class Fish:
    def offered(self, line: str) -> set[str]:
        with tempfile.TemporaryDirectory() as home:
            result = subprocess.run(["fish", "--no-config", "-c", f"source {DIRECTORY}/vimbrel.fish; complete -C '{line}'"],
                                    capture_output=True, text=True, check=False, env={**os.environ, "HOME": home})
        assert not result.stderr, result.stderr
        return {each.split("\t")[0] for each in result.stdout.splitlines()}


class Zsh:
    """A real zsh at a terminal, with its own completion system; what it would offer is noted on the way to its list."""
    SETUP = """
PS1='> '
fpath=($1 $fpath)
autoload -Uz compinit && compinit -u -d $HOME/dump
compadd() {
  local word
  for word in "$@"; do
    [[ $word == -- ]] && break
    # These only ask which words match.
    [[ $word == -[OAD] ]] && { builtin compadd "$@"; return }
  done
  local -a offered
  builtin compadd -O offered "$@"
  print -rl -- $offered >>$HOME/offered
  builtin compadd "$@"
}
finished() { print >$HOME/done }
comppostfuncs=(finished)
print ready >$HOME/ready
"""

    def offered(self, line: str) -> set[str]:
        with tempfile.TemporaryDirectory() as home:
            folder = pathlib.Path(home)
            (folder / "setup").write_text(self.SETUP, encoding="utf-8")
            (folder / "offered").touch()
            shell, terminal = pty.fork()
            if shell == 0:
                os.execvpe("zsh", ["zsh", "-f", "-i"], {**os.environ, "HOME": home, "TERM": "dumb", "LC_ALL": "C.UTF-8"})
            try:
                os.write(terminal, f"source {home}/setup {DIRECTORY}\n".encode())
                self.wait_for(folder / "ready", terminal)
                os.write(terminal, f"{line}\t".encode())
                self.wait_for(folder / "done", terminal)
                # Its own blanks and quotation marks are of no interest.
                return set((folder / "offered").read_text(encoding="utf-8").split())
            finally:
                os.kill(shell, signal.SIGKILL)
                os.waitpid(shell, 0)
                os.close(terminal)

    @staticmethod
    def wait_for(file: pathlib.Path, terminal: int) -> None:
        end = time.monotonic() + 30
        shown = b""
        while not file.exists():
            if select.select([terminal], [], [], 0.02)[0]:
                shown += os.read(terminal, 65536)
            assert time.monotonic() < end, shown


class Completions(unittest.TestCase):
    def check(self, shell) -> None:
        for line, (expected, unexpected) in CASES.items():
            with self.subTest(line=line):
                offered = shell.offered(line)
                self.assertLessEqual(expected, offered)
                self.assertFalse(unexpected & offered, offered)

    def test_bash(self):
        self.check(Bash())

    def test_fish(self):
        self.check(Fish())

    def test_zsh(self):
        self.check(Zsh())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
