#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the manual pages: manual.py REFERENCE.json HELPER DOCS OUTPUT [TRAY]

REFERENCE.json is what command_reference wrote down, HELPER and TRAY the built programs (their --help becomes the
options), DOCS the folder of the documents. Nothing is written by hand twice: commands, options, settings and exit
statuses come from the program, everything else is the document that people read on the web, section by section."""
import json
import os
import pathlib
import re
import subprocess
import sys

from markdown_man import convert, escape, inline, tidy

# document -> the page that holds it, for references between pages.
PAGE_OF = {
    "command-line.md": "vimbrel(1)",
    "relay.md": "vimbrel-relay(1)",
    "closed-lid.md": "vimbrel-helper(8)",
    "settings.md": "vimbrel-settings(5)",
    "simulated-machine.md": "vimbrel-world(5)",
    "file-formats.md": "vimbrel-files(5)",
    "control-protocol.md": "vimbrel-control(7)",
    "usage.md": "vimbrel-usage(7)",
    "status-bars.md": "vimbrel-status-bars(7)",
    "remote.md": "vimbrel-remote(7)",
    "agents.md": "vimbrel-agents(7)",
}
# page, one line, document, its sections (None: all), its sections that stand elsewhere
DOCUMENT_PAGES = [
    ("vimbrel-settings(5)", "the settings of vimbrel and their file", "settings.md", None, []),
    ("vimbrel-world(5)", "the file that describes a simulated machine", "simulated-machine.md", None,
     ["The whole application on virtual time"]),
    ("vimbrel-files(5)", "the files that vimbrel keeps", "file-formats.md", None, []),
    ("vimbrel-control(7)", "the control socket of vimbrel", "control-protocol.md", None, []),
    ("vimbrel-hooks(7)", "the socket to which agents' hooks report", "relay.md", ["The hook socket"], []),
    ("vimbrel-helper-socket(7)", "the socket of the closed-lid helper", "closed-lid.md", ["The protocol"], []),
    ("vimbrel-usage(7)", "what agents spent: where it is read and how it is counted", "usage.md", None, []),
    ("vimbrel-status-bars(7)", "vimbrel in status bars", "status-bars.md", None, []),
    ("vimbrel-remote(7)", "agents on other machines", "remote.md", None, []),
    ("vimbrel-agents(7)", "connecting agents with vimbrel", "agents.md", None, []),
]
OPTION_OF_HELP = re.compile(r"^ {2,}(-[\w-]+(?:,\s*-[\w-]+)*(?: <?[A-Z][\w.]*>?)?)\s{2,}(.*)$")


def sections(markdown: str, wanted: list[str] | None, unwanted: list[str]) -> str:
    """The document without its title, and of its second-level sections those that are asked for."""
    parts = re.split(r"(?m)^(?=## )", re.sub(r"\A# .*\n", "", markdown))
    kept = []
    for part in parts:
        title = part.split("\n", 1)[0].removeprefix("## ").strip() if part.startswith("## ") else None
        if (wanted is None and title not in unwanted) or (wanted is not None and title in wanted):
            kept.append(part)
    missing = set(wanted or []) - {part.split("\n", 1)[0].removeprefix("## ").strip() for part in kept}
    if missing:
        sys.exit(f"manual: no section {', '.join(sorted(missing))}")
    return "".join(kept)


class Manual:
    def __init__(self, reference: dict, docs: pathlib.Path, output: pathlib.Path) -> None:
        self.reference, self.docs, self.output = reference, docs, output
        self.pages = {page for page in PAGE_OF.values()}
        self.page_of = {document: page for document, page in PAGE_OF.items() if (docs / document).exists()}

    def read(self, document: str) -> str:
        return (self.docs / document).read_text(encoding="utf-8")

    def write(self, page: str, summary: str, body: list[str], see: list[str]) -> None:
        name, section = page.rstrip(")").split("(")
        see = sorted((each for each in see if each != page), key=lambda each: (each.split("(")[1], each))
        references = ", ".join(rf"\fB{escape(each.split('(')[0])}\fP({each.split('(')[1]}" for each in see)
        lines = [r'.\" Made by tools/manual.py. SPDX-License-Identifier: Apache-2.0',
                 f'.TH {name.upper().replace("-", chr(92) + "-")} {section} "" "Vimbrel {self.reference["version"]}"',
                 ".SH NAME", rf"{escape(name)} \- {escape(summary)}", *tidy(body), ".SH SEE ALSO", references]
        target = self.output / f"{name}.{section}"
        target.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def document(self, markdown: str, level: int = 1) -> list[str]:
        body = convert(markdown, self.page_of, level)
        return body if body and body[0].startswith(".SH") else [".SH DESCRIPTION", *body]

    def options(self, options: list[dict]) -> list[str]:
        lines = []
        for option in options:
            if option["names"] == ["-h", "--help"]:
                continue
            names = ", ".join(rf"\fB{escape(name)}\fP" for name in option["names"])
            value = rf" \fI{escape(option['value'])}\fP" if option["value"] else ""
            lines += [".TP", names + value, escape(option["help"]) + accepted(option)]
        return lines

    def command(self, command: dict, path: str) -> list[str]:
        """One command and those below it."""
        lines = []
        words = f"{path} {command['name']}".strip()
        if command["options"] or command["positions"] or not command["commands"]:
            usage = rf"\fBvimbrel {escape(words)}\fP"
            for option in command["options"]:
                if "--help" not in option["names"]:
                    value = rf" \fI{escape(option['value'])}\fP" if option["value"] else ""
                    usage += rf" [\fB{escape(option['names'][-1])}\fP{value}]"
            for position in command["positions"]:
                word = rf"\fI{escape(position['position'].upper())}\fP" + (r"\&..." if position["repeats"] else "")
                usage += f" {word}" if position["required"] else f" [{word}]"
            lines += [f".SS {escape(words)}", usage, ".PP", escape(command["help"]) + "."]
            for position in command["positions"]:
                lines += [".TP", rf"\fI{escape(position['position'].upper())}\fP",
                          escape(position["help"]) + accepted(position)]
            lines += self.options(command["options"])
        for each in command["commands"]:
            lines += self.command(each, words)
        return lines


def accepted(option: dict) -> str:
    return f" ({escape(', '.join(option['values']))})" if option["values"] else ""


def program_options(program: str) -> list[str]:
    """What `PROGRAM --help` prints, as a page: first the synopsis, then the options."""
    text = subprocess.run([program, "--help"], capture_output=True, text=True, check=True,
                          env={**os.environ, "LC_ALL": "C"}).stdout
    usage = re.search(r"[Uu]sage: (.*)", text).group(1)
    name, _, rest = usage.partition(" ")
    name = name.rsplit("/", 1)[-1]
    lines = [".SH SYNOPSIS", rf"\fB{escape(name)}\fP {escape(rest)}", ".SH OPTIONS"]
    # A long description goes on below itself.
    joined = re.sub(r"\n {16,}(?=\S)", " ", text)
    for line in joined.splitlines():
        if option := OPTION_OF_HELP.match(line):
            lines += [".TP", rf"\fB{escape(option.group(1))}\fP", escape(option.group(2).rstrip(".")) + "."]
    return lines


def main() -> int:
    reference_file, helper, docs, output = sys.argv[1:5]
    tray = sys.argv[5] if len(sys.argv) > 5 else None
    reference = json.loads(pathlib.Path(reference_file).read_text(encoding="utf-8"))
    target = pathlib.Path(output)
    target.mkdir(parents=True, exist_ok=True)
    manual = Manual(reference, pathlib.Path(docs), target)

    pages = ["vimbrel(1)", "vimbrel-relay(1)", "vimbrel-helper(8)"]
    pages += [page for page, _, document, _, _ in DOCUMENT_PAGES if (manual.docs / document).exists()]
    if tray:
        pages.append("vimbrel-tray(1)")

    program = reference["program"]
    body = [".SH SYNOPSIS", r"\fBvimbrel\fP [\fICOMMAND\fP [\fIOPTION\fP...]]", ".SH DESCRIPTION",
            *convert(manual.read("man/vimbrel.md"), manual.page_of), ".SH OPTIONS",
            *manual.options(program["options"]), ".TP", r"\fB\-h\fP, \fB\-\-help\fP",
            "Print help, also of each command.", ".SH COMMANDS"]
    for command in program["commands"]:
        body += manual.command(command, "")
    body += [".SH SETTINGS", r"Each is described in \fBvimbrel\-settings\fP(5).", ".PP",
             ", ".join(rf"\fB{escape(setting['key'])}\fP" for setting in reference["settings"])]
    body += [".SH EXIT STATUS"]
    for status in reference["exitStatus"]:
        body += [".TP", rf"\fB{status['status']}\fP", escape(status["meaning"]) + "."]
    # The commands' table and the statuses come from the program; the rest of the document is prose.
    prose = sections(manual.read("command-line.md"), None, ["Exit status"])
    prose = re.sub(r"(?m)\A.*?(?=^## )", "", prose, flags=re.DOTALL)
    body += manual.document(prose)
    body += [".SH ENVIRONMENT"]
    for name, meaning in (("NO_COLOR", "When it is set to anything, no colour is used."),
                          ("XDG_DATA_HOME", "Where data and sockets are, in Vimbrel/; ~/.local/share when it is not set."),
                          ("XDG_CONFIG_HOME", "Where the settings are, in com.vimbrel.app/; ~/.config when it is not set."),
                          ("XDG_STATE_HOME", "Where the log is, in Vimbrel/; ~/.local/state when it is not set.")):
        body += [".TP", rf"\fB{name}\fP", escape(meaning)]
    manual.write("vimbrel(1)", "keep the computer awake while AI coding agents work", body, pages)

    relay = manual.read("relay.md")
    introduction = re.split(r"(?m)^## ", re.sub(r"\A# .*\n", "", relay))[0]
    body = [".SH SYNOPSIS", r"\fBvimbrel\-relay\fP \fB\-\-agent\fP \fINAME\fP \fB\-\-state\fP \fISTATE\fP [\fIOPTION\fP...]",
            ".SH DESCRIPTION", *convert(introduction, manual.page_of, 1),
            *convert(sections(relay, ["Options"], []), manual.page_of, 1),
            ".SH EXIT STATUS", ".TP", r"\fB0\fP", "Always, so that no agent is held up."]
    manual.write("vimbrel-relay(1)", "report an agent's event to vimbrel", body, pages)

    body = [*program_options(helper), *manual.document(sections(manual.read("closed-lid.md"), None, ["The protocol"])),
            ".SH EXIT STATUS", ".TP", r"\fB0\fP", "It was told to end.", ".TP", r"\fB1\fP", "It cannot serve.",
            ".TP", r"\fB2\fP", "Wrong usage."]
    manual.write("vimbrel-helper(8)", "keep the computer awake with its lid closed", body, pages)

    if tray:
        body = [*program_options(tray), ".SH DESCRIPTION", ".PP",
                inline("`vimbrel-tray` shows what `vimbrel run` does in the desktop's panel. It is a client of the "
                       "control socket and keeps no state of its own.", {}),
                ".SH EXIT STATUS", ".TP", r"\fB0\fP", "It was told to end, or another one in this session opened what was asked for.",
                ".TP", r"\fB1\fP", "There is no display.", ".TP", r"\fB2\fP", "Wrong usage."]
        manual.write("vimbrel-tray(1)", "show vimbrel in the desktop's panel", body, pages)

    for page, summary, document, wanted, unwanted in DOCUMENT_PAGES:
        if not (manual.docs / document).exists():
            continue
        markdown = sections(manual.read(document), wanted, unwanted)
        if wanted:  # A page made of one section has that section's text for its description.
            markdown = re.sub(r"\A## .*\n", "", markdown)
        manual.write(page, summary, manual.document(markdown), pages)
    return 0


if __name__ == "__main__":
    sys.exit(main())
