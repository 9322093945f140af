#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The completions as the three shells really answer: completions_test.py COMPLETIONS-DIRECTORY"""
import os
import pathlib
import subprocess
import sys
import tempfile
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
    """zsh completes only on a terminal; here the function runs with what it would have been given, and what it hands
    to zsh's own functions is what counts."""
    SCRIPT = """
_describe() { print -l -- ${(P)argv[-1]} }
_files() { print -- '(files)' }
_message() { }
_command_names() { print -- '(commands)' }
words=(${(s: :)2})
[[ $2 != *' ' ]] || words+=('')
CURRENT=$#words
service=$words[1]
prefix=$words[CURRENT]
run() { source $1/_vimbrel }
for each in ${(f)"$(run $1)"}; do
  word=${each%%:*}
  [[ $word == $prefix* ]] && print -r -- $word
done
true
"""

    def offered(self, line: str) -> set[str]:
        result = subprocess.run(["zsh", "-f", "-c", self.SCRIPT, "zsh", DIRECTORY, line], capture_output=True, text=True, check=False)
        assert not result.stderr, result.stderr
        return set(result.stdout.split())


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
