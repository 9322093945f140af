#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The manual names every command, option, setting and exit status that the programs have, and no other.

manual_test.py VIMBREL HELPER SOURCES MAN-DIRECTORY [TRAY]. The programs' own --help and their sources are the truth; the
pages are made by another road (tools/manual.py), so that a fault of that road shows here."""
import os
import pathlib
import re
import subprocess
import sys
import unittest

VIMBREL, HELPER, SOURCES, MAN = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3]), pathlib.Path(sys.argv[4])
TRAY = sys.argv[5] if len(sys.argv) > 5 else None


def plain(page: str) -> str:
    """A page's source without its markup."""
    text = (MAN / page).read_text(encoding="utf-8")
    return re.sub(r"\\f[BIRP]", "", text).replace("\\-", "-").replace("\\(aq", "'").replace("\\&", "")


def section(page: str, title: str) -> str:
    return re.search(rf"(?ms)^\.SH {title}\n(.*?)(?=^\.SH |\Z)", plain(page)).group(1)


def help_of(path: list[str]) -> str:
    return subprocess.run([VIMBREL, *path, "--help"], capture_output=True, text=True, check=True).stdout


def names_in(text: str, title: str) -> list[str]:
    """The first words of the entries of one section of a --help text."""
    found = re.search(rf"(?ms)^{title}:\n(.*?)(?=^\S|\Z)", text)
    return [] if not found else re.findall(r"(?m)^  (\S+)", found.group(1))


def commands_of_program(path: list[str]) -> dict[str, set[str]]:
    """Command -> its options, from --help, all the way down."""
    text = help_of(path)
    options = {name for entry in names_in(text, "Options") for name in entry.split(",") if name.startswith("--")}
    result = {" ".join(path): options - {"--help", "--version"}}
    for command in names_in(text, "Subcommands"):
        result |= commands_of_program([*path, command])
    return result


def tagged(text: str) -> list[str]:
    return re.findall(r"(?m)^\.TP\n(.*)$", text)


class Manual(unittest.TestCase):
    maxDiff = None

    def test_every_command_and_option_and_no_other(self):
        program = commands_of_program([])
        page = {}
        for heading, text in re.findall(r"(?ms)^\.SS (.*?)\n(.*?)(?=^\.S[SH] |\Z)", section("vimbrel.1", "COMMANDS")):
            page[heading] = set(re.findall(r"--[a-z][\w-]*", " ".join(t for t in tagged(text) if t.startswith("-"))))
        options = {name for tag in tagged(section("vimbrel.1", "OPTIONS")) for name in re.findall(r"--[\w-]+", tag)}
        self.assertEqual(options, {"--help", "--version"} | program.pop(""))
        # A command that only groups others stands in their headings.
        groups = {path for path in program if any(other.startswith(path + " ") for other in program)}
        for path in groups - page.keys():
            self.assertEqual(program.pop(path), set())
        self.assertEqual(page, program)
        self.assertGreater(len(page), 15)

    def test_every_exit_status_and_no_other(self):
        source = (SOURCES / "VimbrelApp/Commands/ExitCode.h").read_text()
        program = set(re.findall(r"inline constexpr int \w+ = (\d+);", source))
        self.assertEqual(set(tagged(section("vimbrel.1", "EXIT STATUS"))), program)
        self.assertEqual(set(re.findall(r"(?m)^  (\d+)  ", help_of([]))), program)

    def test_every_exit_status_of_the_other_programs_and_no_other(self):
        helper = (SOURCES / "VimbrelHelper/main.cpp").read_text()
        programs = {"vimbrel-relay.1": set(re.findall(r"_exit\((\d)\)", (SOURCES / "VimbrelRelay/main.cpp").read_text())),
                    "vimbrel-helper.8": {"0"} | set(re.findall(r"constexpr int exit\w+ = (\d);", helper))}
        if TRAY:
            tray = (SOURCES / "VimbrelTray/main.cpp").read_text()
            programs["vimbrel-tray.1"] = set(re.findall(r"(?m)^ +return (?:std::unexpected\()?(\d)\)?;", tray))
        for page, program in programs.items():
            self.assertEqual(set(tagged(section(page, "EXIT STATUS"))), program, page)

    def test_every_setting_and_no_other(self):
        source = (SOURCES / "VimbrelCore/System/SettingDescriptions.cpp").read_text()
        program = set(re.findall(r"\.key = \"(\w+)\"", source))
        self.assertGreater(len(program), 10)
        page = {re.match(r"\w+", tag).group() for tag in tagged(plain("vimbrel-settings.5"))}
        self.assertEqual(page, program)
        listed = re.search(r"(?s)\(5\)\.\n\.PP\n(.*?)\n", section("vimbrel.1", "SETTINGS")).group(1)
        self.assertEqual(set(listed.split(", ")), program)

    def test_every_option_of_the_relay_and_no_other(self):
        source = (SOURCES / "VimbrelRelay/RelayOptions.cpp").read_text()
        program = set(re.findall(r"\.name = \"(-[\w-]+)\"", source)) | set(re.findall(r"argument == \"(-[\w-]+)\"", source))
        page = {name for tag in tagged(section("vimbrel-relay.1", "OPTIONS")) for name in re.findall(r"(?<!\w)-[\w-]+", tag)}
        self.assertEqual(page, program)

    def test_every_option_of_the_helper_and_no_other(self):
        source = (SOURCES / "VimbrelHelper/HelperOptions.cpp").read_text()
        program = set(re.findall(r"argument == \"(-[\w-]+)\"", source))
        page = {name for tag in tagged(section("vimbrel-helper.8", "OPTIONS")) for name in re.findall(r"(?<!\w)-[\w-]+", tag)}
        self.assertEqual(page, program)

    def test_every_option_of_the_tray_and_no_other(self):
        if not TRAY:
            return
        source = (SOURCES / "VimbrelTray/main.cpp").read_text()
        program = {"--" + name for name in re.findall(r"QCommandLineOption \w+\(\s*\"([\w-]+)\"", source)}
        program |= {option for name in ("help", "version") if f"add{name.title()}Option()" in source for option in ("--" + name, "-" + name[0])}
        page = {name for tag in tagged(section("vimbrel-tray.1", "OPTIONS")) for name in re.findall(r"(?<![\w-])--?[a-z][\w-]*", tag)}
        # Qt adds one of its own to each program.
        self.assertEqual(page - {"--help-all"}, program)
        self.assertGreater(len(program), 4)

    def test_the_tray_ends_as_its_page_says_where_there_is_no_display(self):
        if not TRAY:
            return
        of_a_display = ("DISPLAY", "WAYLAND_DISPLAY", "WAYLAND_SOCKET", "QT_QPA_PLATFORM", "XDG_SESSION_TYPE")
        nowhere = {name: value for name, value in os.environ.items() if name not in of_a_display}
        nowhere["LC_ALL"] = "C"
        for arguments, status, output, errors in (
                (["--help"], 0, "--reduce-motion", ""), (["-h"], 0, "Usage: ", ""),
                (["--version"], 0, "vimbrel-tray ", ""), (["-v", "-reverse"], 0, "vimbrel-tray ", ""),
                (["--colour"], 2, "", "Unknown option 'colour'; see --help"),
                (["--theme", "red"], 2, "", '--theme takes "light" or "dark", not "red"; see --help'),
                (["--open", "door"], 2, "", '--open does not know "door"; see --help'),
                (["open"], 2, "", '"open" is no option; see --help')):
            # One that cannot be reached is none.
            for environment in (nowhere, {**nowhere, "DISPLAY": "/nowhere:1"}):
                done = subprocess.run([TRAY, *arguments], env=environment, capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, status, (arguments, done))
                self.assertIn(output, done.stdout)
                self.assertEqual(done.stderr, f"vimbrel-tray: {errors}\n" if errors else "")
        for arguments in ([], ["--open", "settings"], ["-reverse", "-style", "fusion"]):
            done = subprocess.run([TRAY, *arguments], env=nowhere, capture_output=True, text=True, check=False)
            self.assertEqual((done.returncode, done.stdout), (1, ""), done)
            self.assertEqual(done.stderr, "vimbrel-tray: there is no display: neither DISPLAY nor WAYLAND_DISPLAY is set\n")

    def test_every_program_file_format_and_socket_has_a_page(self):
        for page in ("vimbrel.1", "vimbrel-relay.1", "vimbrel-helper.8", "vimbrel-settings.5", "vimbrel-files.5",
                     "vimbrel-world.5", "vimbrel-control.7", "vimbrel-hooks.7", "vimbrel-helper-socket.7"):
            self.assertTrue((MAN / page).exists(), page)
        if TRAY:
            self.assertTrue((MAN / "vimbrel-tray.1").exists())

    def test_references_lead_to_pages(self):
        for page in MAN.iterdir():
            for name, number in re.findall(r"\b(vimbrel[\w-]*)\((\d)\)", plain(page.name)):
                self.assertTrue((MAN / f"{name}.{number}").exists(), f"{page.name} refers to {name}({number})")

    def test_pages_are_sound(self):
        for page in sorted(MAN.iterdir()):
            result = subprocess.run(["mandoc", "-Tlint", "-Wwarning", page], capture_output=True, text=True, check=False)
            # The date is left out, so that the same sources make the same bytes.
            problems = [line for line in result.stdout.splitlines() if "missing date" not in line]
            self.assertEqual(problems, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
