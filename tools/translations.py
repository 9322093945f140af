#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Collects the texts of the programs into Translations/vimbrel.pot and brings every catalogue up to date.

With --check nothing is written: it fails when the template does not have exactly the texts of the sources, or when a
catalogue has not translated every one of them, surely (no fuzzy entry) and with the same placeholders.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDER = ROOT / "Translations"
TEMPLATE = FOLDER / "vimbrel.pot"
# What `say` and its kin look up, Qt's own mark among them; and the sentences that `retell` knows again.
SAID = ["--keyword=say:1", "--keyword=toSay:1", "--keyword=sayCount:2,3", "--keyword=sayAs:1c,2", "--keyword=tr:1"]
RETOLD = ["--keyword=sentence:1", "--keyword=sentenceCount:2,3"]
RETOLD_CONTEXT = "sentence"
HEADER = '''# SPDX-License-Identifier: Apache-2.0
# Texts of Vimbrel. Made by `./dev translations`: what is changed here by hand is lost.
msgid ""
msgstr ""
"Project-Id-Version: vimbrel\\n"
"Language: \\n"
"MIME-Version: 1.0\\n"
"Content-Type: text/plain; charset=UTF-8\\n"
"Content-Transfer-Encoding: 8bit\\n"
"Plural-Forms: nplurals=INTEGER; plural=EXPRESSION;\\n"

'''


def run(*command: str) -> str:
    """The standard output of a command that must succeed."""
    done = subprocess.run(command, capture_output=True, text=True, cwd=ROOT, env={**os.environ, "LC_ALL": "C.UTF-8"})
    if done.returncode != 0:
        sys.exit(f"translations: {' '.join(command[:2])} …: {done.stderr.strip() or done.returncode}")
    return done.stdout


def sources() -> list[str]:
    return sorted(str(path.relative_to(ROOT)) for path in (ROOT / "Sources").rglob("*.cpp")) + sorted(
        str(path.relative_to(ROOT)) for path in (ROOT / "Sources").rglob("*.h"))


def extracted(keywords: list[str]) -> str:
    # The comments before a text are the developers' own; the marks that translators see begin with "TRANSLATORS:".
    text = run("xgettext", "--language=C++", "--from-code=UTF-8", "--add-location=file",
               "--add-comments=TRANSLATORS:", "--no-wrap", "--keyword", *keywords, "--output=-", *sources())
    # None of them is printf's, whatever a per cent sign may look like.
    text = re.sub(r"^#, (no-)?c-format\n", "", text, flags=re.MULTILINE)
    # Its header, which has the time in it, ends with the first blank line.
    return text.split("\n\n", 1)[1]


def template() -> str:
    # A sentence and a text of a surface may be the same in English and differ in another language.
    sentences = re.sub(r"^msgid ", f'msgctxt "{RETOLD_CONTEXT}"\nmsgid ', extracted(RETOLD), flags=re.MULTILINE)
    return HEADER + extracted(SAID).strip("\n") + "\n\n" + sentences.strip("\n") + "\n"


def unquoted(line: str) -> str:
    text = line[line.index('"') + 1:line.rindex('"')]
    return re.sub(r'\\(.)', lambda match: {"n": "\n", "t": "\t"}.get(match[1], match[1]), text)


def entries(text: str) -> list[dict]:
    """The entries of a catalogue: "id", "context", "plural", "forms", "fuzzy"."""
    result = []
    for block in re.split(r"\n\s*\n", text):
        entry = {"forms": [], "fuzzy": False, "context": "", "plural": ""}
        field = None
        for line in block.splitlines():
            if line.startswith("#,"):
                entry["fuzzy"] = "fuzzy" in line
            if line.startswith("#") or not line.strip():
                continue
            word = line.split(" ", 1)[0]
            if word == "msgctxt":
                field = "context"
            elif word == "msgid":
                field = "id"
            elif word == "msgid_plural":
                field = "plural"
            elif word.startswith("msgstr"):
                field = "forms"
                entry["forms"].append("")
            if field == "forms":
                entry["forms"][-1] += unquoted(line)
            else:
                entry[field] = entry.get(field, "") + unquoted(line)
        if "id" in entry:
            result.append(entry)
    return result


def marks(text: str) -> set[str]:
    return set(re.findall(r"%[1-9]", text))


def problems_of(catalogue: pathlib.Path, wanted: list[dict]) -> list[str]:
    problems = []
    checked = subprocess.run(["msgfmt", "--check", "-o", "/dev/null", str(catalogue)], capture_output=True, text=True)
    if checked.returncode != 0:
        problems.append(checked.stderr.strip())
    have = {(entry["context"], entry["id"]): entry for entry in entries(catalogue.read_text())}
    for text in wanted:
        if not text["id"]:
            continue
        short = text["id"] if len(text["id"]) < 70 else text["id"][:69] + "…"
        entry = have.get((text["context"], text["id"]))
        if entry is None or not all(entry["forms"]) or entry["plural"] != text["plural"]:
            problems.append(f"not translated: {short!r}")
            continue
        if entry["fuzzy"]:
            problems.append(f"fuzzy: {short!r}")
        for number, form in enumerate(entry["forms"]):
            # The form for one only may leave the number out, as in English.
            english = text["plural"] or text["id"]
            may_lack = {"%1"} if text["plural"] and number == 0 else set()
            if marks(form) - marks(english) - marks(text["id"]) or marks(english) - marks(form) - may_lack:
                problems.append(f"other placeholders than in English: {short!r}: {form!r}")
            if (text["id"].startswith(" "), text["id"].endswith((" ", "\n"))) != (
                    form.startswith(" "), form.endswith((" ", "\n"))):
                problems.append(f"blanks at the ends differ from English: {short!r}: {form!r}")
    return problems


def catalogues() -> list[pathlib.Path]:
    languages = [line for line in (FOLDER / "LINGUAS").read_text().split("\n") if line and not line.startswith("#")]
    return [FOLDER / f"{language}.po" for language in languages]


def check() -> int:
    problems = []
    fresh = template()
    if not TEMPLATE.exists() or TEMPLATE.read_text() != fresh:
        old = {(e["context"], e["id"]) for e in entries(TEMPLATE.read_text())} if TEMPLATE.exists() else set()
        new = {(e["context"], e["id"]) for e in entries(fresh)}
        for _, text in sorted(new - old):
            problems.append(f"{TEMPLATE.name}: missing: {text!r}")
        for _, text in sorted(old - new):
            problems.append(f"{TEMPLATE.name}: no longer in the sources: {text!r}")
        if new == old:
            problems.append(f"{TEMPLATE.name}: names other places than the sources")
        problems.append("run: ./dev translations")
    for catalogue in catalogues():
        problems += [f"{catalogue.name}: {problem}" for problem in problems_of(catalogue, entries(fresh))]
    for problem in problems:
        print(f"translations: {problem}", file=sys.stderr)
    if not problems:
        count = len(entries(fresh)) - 1
        print(f"translations: {count} texts, all of them in {', '.join(each.stem for each in catalogues())}")
    return 1 if problems else 0


def update() -> int:
    TEMPLATE.write_text(template())
    for catalogue in catalogues():
        with tempfile.NamedTemporaryFile(suffix=".po") as merged:
            run("msgmerge", "--quiet", "--previous", "--no-wrap", "--add-location=file", f"--output-file={merged.name}",
                str(catalogue), str(TEMPLATE))
            # Texts that are gone stay in the history of the file, and nowhere else.
            run("msgattrib", "--no-obsolete", "--no-wrap", "--add-location=file", f"--output-file={catalogue}", merged.name)
        open_ones = [entry for entry in entries(catalogue.read_text())
                     if entry["id"] and (entry["fuzzy"] or not all(entry["forms"]))]
        print(f"translations: {catalogue.name}: {len(open_ones)} texts to translate")
    return 0


if __name__ == "__main__":
    sys.exit(check() if "--check" in sys.argv[1:] else update())
