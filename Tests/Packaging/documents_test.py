#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the documents say can be done, can be done: documents_test.py VIMBREL RELAY HELPER REFERENCE.json SOURCES

Every `vimbrel` and `vimbrel-relay` command that stands in a document is run against a running application on a
simulated machine, in a home of its own. A command that the program does not understand fails the test, and so does a
link that leads nowhere, a ./dev command that does not exist, or a command of the program that no document names."""
import json
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import time
import unittest

VIMBREL, RELAY, HELPER = (pathlib.Path(each).resolve() for each in sys.argv[1:4])
REFERENCE = json.loads(pathlib.Path(sys.argv[4]).read_text(encoding="utf-8"))
ROOT = pathlib.Path(sys.argv[5]).resolve()
DOCUMENTS = [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *sorted((ROOT / "docs").glob("*.md"))]
DOCUMENTS = [document for document in DOCUMENTS if document.exists()]

# What stands for something of the reader's, and what takes its place here.
PLACEHOLDERS = {"WORLD.json": "world.json", "SCENARIO.json": "scenario.json", "KEY": "batteryFloorPercent", "VALUE": "20",
                "AGENT": "claude", "NAME": "claude", "STATE": "working", "DAY": "2026-01-31", "DURATION": "45m",
                "TIME": "45m", "COMMAND": "true", "HH:MM": "14:00", "ID": "1", "$SESSION": "s1", "PATH": "hooks.sock",
                "SOCKET": "hooks.sock", "FORMAT": "waybar", "FILE": "file"}
# These go on until somebody stops them.
ENDLESS = ("watch", "--follow", "agents setup", "run", "simulate")
WRONG_USAGE, CANNOT_RUN, NOT_FOUND = 2, 126, 127


def code_lines(text: str) -> list[str]:
    """The lines of the code blocks, indented and fenced; without those that show JSON or another language."""
    lines, fenced, language = [], False, ""
    # A command that goes on in the next line is one command.
    text = re.sub(r"\\\n\s*", " ", text)
    for line in text.splitlines():
        if line.lstrip().startswith("```"):
            fenced = not fenced
            language = line.strip().removeprefix("```")
        elif fenced and language in ("", "sh", "bash", "console"):
            lines.append(line)
        elif not fenced and re.match(r" {4,}\S", line):
            lines.append(line.strip())
    return lines


def commands_in(text: str) -> list[str]:
    """The `vimbrel` commands of a document, as they stand there."""
    without_blocks = re.sub(r"(?ms)^```.*?^```", "", text)
    candidates = [line.strip().removeprefix("$ ") for line in code_lines(text)]
    candidates += re.findall(r"`((?:vimbrel|vimbrel-relay|vimbrel-helper) [^`]+)`", without_blocks)
    found = []
    for candidate in candidates:
        candidate = re.sub(r"^\./dev cli ", "vimbrel ", candidate)
        candidate = re.sub(r"^build/release/\S*/(vimbrel\S*)", r"\1", candidate)
        if re.match(r"(vimbrel|vimbrel-relay|vimbrel-helper) ", candidate):
            found.append(candidate)
    return found


def words_of(command: str) -> list[str]:
    """The command alone: without comments, and without what it is piped into."""
    command = command.replace("\\|", "/").replace("…", "")
    command = re.sub(r"\|[a-z]", lambda match: "/" + match.group()[1:], command)
    lexer = shlex.shlex(command, posix=True, punctuation_chars="|;&<>")
    lexer.whitespace_split = True
    lexer.commenters = "#"
    words = []
    for word in lexer:
        if set(word) <= set("|;&<>"):
            break
        words.append(word)
    return words


class Documents(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        home = pathlib.Path(cls.directory.name)
        programs = home / "bin"
        programs.mkdir()
        for name, program in (("vimbrel", VIMBREL), ("vimbrel-relay", RELAY), ("vimbrel-helper", HELPER)):
            (programs / name).symlink_to(program)
        for name in ("make", "systemctl", "loginctl", "ssh", "xclip", "wl-copy"):
            (programs / name).write_text("#!/bin/sh\nexit 0\n", encoding="utf-8")
            (programs / name).chmod(0o755)
        (home / "world.json").write_text('{"power":{"batteryPercent":80,"isOnAC":false}}', encoding="utf-8")
        (home / "laptop.json").write_text("{}", encoding="utf-8")
        cls.environment = {"HOME": str(home), "PATH": f"{programs}:/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TERM": "dumb"}
        cls.home = home
        cls.application = subprocess.Popen(["vimbrel", "run", "--lines", "--simulate", "world.json"], cwd=home,
                                           env=cls.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while cls.run_in_home(["vimbrel", "status"]).returncode != 0:
            assert time.monotonic() < deadline and cls.application.poll() is None, "the application does not start"
            time.sleep(0.05)

    @classmethod
    def tearDownClass(cls):
        cls.application.terminate()
        cls.application.wait(timeout=30)
        cls.directory.cleanup()

    @classmethod
    def run_in_home(cls, words: list[str], timeout: float = 60) -> subprocess.CompletedProcess:
        return subprocess.run(words, cwd=cls.home, env=cls.environment, stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=timeout, check=False)

    def test_every_command_is_understood(self):
        count = 0
        for document in DOCUMENTS:
            for command in commands_in(document.read_text(encoding="utf-8")):
                with self.subTest(document=document.name, command=command):
                    count += self.try_command(command)
        self.assertGreater(count, 40)

    def try_command(self, command: str) -> int:
        optional = re.sub(r"\[[^\]]*\]", "", command)  # What is optional is left away here, and looked at below.
        for option in re.findall(r"--[a-z][\w-]*", " ".join(re.findall(r"\[([^\]]*)\]", command))):
            self.assertTrue(self.is_option_of(command, option), f"there is no {option}")
        words = [PLACEHOLDERS.get(word.strip(".,;"), word) for word in words_of(optional)]
        # "working|waiting": one of them is enough.
        words = [word.split("/")[0] if re.fullmatch(r"[a-z]+(/[a-z]+)+", word) else word for word in words]
        if words[0] == "vimbrel-helper":
            words.append("--help")  # Arguments are read first; a helper that serves would not end.
        endless = any(each in " ".join(words) for each in ENDLESS)
        try:
            result = self.run_in_home(words, timeout=3 if endless else 60)
        except subprocess.TimeoutExpired:
            self.assertTrue(endless, "it does not end")
            return 1
        if re.search("required|missing|asks first", result.stderr):
            # A text that only names a command, or one that asks a person: that there is such a command is enough.
            result = self.run_in_home([word for word in words if not word.startswith("--")] + ["--help"])
        self.assertNotIn(result.returncode, (WRONG_USAGE, CANNOT_RUN, NOT_FOUND), result.stderr)
        if "run" not in words[1:2]:
            self.assertNotEqual(result.returncode, 3, "the application has stopped: " + result.stderr)
        return 1

    def is_option_of(self, command: str, option: str) -> bool:
        words = re.sub(r"\[[^\]]*\]", "", command).split()
        if words[0] == "vimbrel-relay":
            return option in (ROOT / "Sources/VimbrelRelay/RelayOptions.cpp").read_text(encoding="utf-8")
        if words[0] == "vimbrel-helper":
            return option in (ROOT / "Sources/VimbrelHelper/HelperOptions.cpp").read_text(encoding="utf-8")
        current = REFERENCE["program"]
        for word in words[1:]:
            current = next((each for each in current["commands"] if each["name"] == word), current)
        return any(option in each["names"] for each in current["options"])

    def test_every_command_of_the_program_is_documented(self):
        text = (ROOT / "docs/command-line.md").read_text(encoding="utf-8")

        def walk(command: dict, path: str) -> None:
            for each in command["commands"]:
                words = f"{path} {each['name']}".strip()
                if not each["commands"] or each["options"][1:]:
                    parts = words.split()
                    # "usage daily\|weekly": alternatives share a row.
                    row = "".join(line for line in text.splitlines() if line.startswith("|") and re.search(
                        rf"[`| ]{parts[0]}\b", line) and all(re.search(rf"\b{re.escape(part)}\b", line) for part in parts))
                    self.assertTrue(row, f"docs/command-line.md does not name: {words}")
                    for option in each["options"]:
                        name = option["names"][-1]
                        if name != "--help":
                            self.assertIn(name, row, f"docs/command-line.md, {words}")
                walk(each, words)

        walk(REFERENCE["program"], "")

    def test_every_dev_command_exists(self):
        known = set(re.findall(r"(?m)^  ([a-z]+)\b", subprocess.run(
            [ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout))
        self.assertGreater(len(known), 8)
        for document in DOCUMENTS:
            for name in re.findall(r"\./dev ([a-z]+)", document.read_text(encoding="utf-8")):
                self.assertIn(name, known | {"help"}, document.name)

    def test_every_unit_exists(self):
        units = {each.name for each in (ROOT / "Packaging/systemd").iterdir()}
        for document in DOCUMENTS:
            text = document.read_text(encoding="utf-8")
            # Those that the reader is told to write.
            own = set(re.findall(r"~/\.config/systemd/user/([\w-]+\.service)", text))
            for name in re.findall(r"\bvimbrel[\w-]*\.(?:service|socket)\b", text):
                self.assertIn(name, units | own | {"vimbrel.service"}, document.name)

    def test_links_lead_somewhere(self):
        for document in DOCUMENTS:
            text = re.sub(r"(?ms)^```.*?^```", "", document.read_text(encoding="utf-8"))
            for target in re.findall(r"\]\(([^)\s]+)\)", text):
                if re.match(r"[a-z]+:", target):
                    continue
                path, _, anchor = target.partition("#")
                file = (document.parent / path).resolve() if path else document
                self.assertTrue(file.exists(), f"{document.name} links {target}")
                if anchor and file.suffix == ".md":
                    titles = re.findall(r"(?m)^#+ (.*)$", file.read_text(encoding="utf-8"))
                    anchors = {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}
                    self.assertIn(anchor, anchors, f"{document.name} links {target}")

    def test_files_of_the_tree_exist(self):
        for document in DOCUMENTS:
            for path in re.findall(r"`((?:Sources|Tests|Packaging|Benchmarks|tools|docs|cmake)/[\w./-]+)`",
                                   document.read_text(encoding="utf-8")):
                self.assertTrue(any(ROOT.glob(path.rstrip("/") + each) for each in ("", ".*")), f"{document.name}: {path}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
