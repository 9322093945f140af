# SPDX-License-Identifier: Apache-2.0
"""The real programs speak German to a person who wants it, and English to every machine. No locale needs to be
installed for it: the language comes from the environment's names and the catalogue beside the programs."""

import json
import os
import re
import shutil
import subprocess
import sys

from sandbox import Sandbox, eventually, require

german = {"LC_ALL": "C.UTF-8", "LANGUAGE": "de"}
# No German text has these; a sentence that is not translated hardly does without them.
english_words = re.compile(r"\b(the|is|are|and|until|with|of|to|for|from|nothing|which|this)\b")
power = {"batteryPercent": 14, "isCharging": False, "isOnAC": False, "isLowPowerMode": True, "timeRemainingMinutes": 40}


def catalogues(sandbox):
    return os.path.normpath(os.path.join(os.path.dirname(sandbox.vimbrel), "../share/locale"))


def speak(sandbox, variables):
    for name in ("LC_ALL", "LC_MESSAGES", "LANG", "LANGUAGE"):
        sandbox.environment.pop(name, None)
    sandbox.environment.update(variables)


def printed(sandbox, *arguments, status=0):
    done = sandbox.command(*arguments)
    require(done.returncode == status, "%s ended with %d: %s" % (arguments, done.returncode, done.stderr))
    return done.stdout + done.stderr


def require_german(text, what, *expected):
    for each in expected:
        require(each in text, "%s lacks %r:\n%s" % (what, each, text))
    # What is quoted is meant to be typed, or is somebody else's text.
    found = english_words.search(re.sub(r'"[^"]*"|„[^“]*“|--[a-z-]+|until \d\d:\d\d', "", text))
    require(found is None, "%s has the English word %r:\n%s" % (what, found and found.group(), text))


def require_columns(text, heading, what):
    """Every row has its cells where the heading has its titles, however many bytes a character has."""
    lines = text.splitlines()
    start = next(i for i, line in enumerate(lines) if line.startswith(heading))
    places = [match.start() for match in re.finditer(r"(?<=  )\S", lines[start])]
    rows = 0
    for line in lines[start + 1:]:
        if not line.strip():
            break
        rows += 1
        for place in places:
            require(len(line) <= place or line[place - 2:place] == "  ", "%s: a cell is not below %r:\n%s" %
                    (what, lines[start][place:], text))
    require(rows > 0, "%s has rows" % what)


def try_reports(sandbox):
    speak(sandbox, german)
    sandbox.world({"power": {**power, "batteryPercent": 80, "isLowPowerMode": False}})
    sandbox.start()
    sandbox.relay("--agent", "claude", "--state", "working", "--session-id", "one", "--no-pid")
    sandbox.relay("--agent", "codex", "--state", "waiting", "--session-id", "two", "--no-pid")
    eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")
    status = printed(sandbox, "status")
    require_german(status, "status", "SIMULIERT: nichts hält diesen Rechner wach",
                   "Aktiv (2 arbeitende Agenten) – Claude Code, Codex CLI bei der Arbeit", "Akkubetrieb, 80 %",
                   "Verhindert", "Arbeitet", "Wartet", "LETZTES EREIGNIS", "Bereitschaft des Rechners")
    require_columns(status, "AGENT", "status")
    require_columns(printed(sandbox, "sessions"), "AGENT", "sessions")
    require_german(printed(sandbox, "why"), "why", "Die Regeln der Reihe nach", "der Hauptschalter ist eingeschaltet",
                   "80 % im Akkubetrieb, Untergrenze 15 %", "2 von 2 Sitzungen bei der Arbeit", "ändern würde das: ")
    sandbox.world({"power": power})
    eventually(lambda: not sandbox.ask("status")["isHolding"], "the battery cuts it off")
    require_german(printed(sandbox, "status"), "status", "Aus Sicherheit gesperrt: Akku unter der Sicherheitsgrenze",
                   "Energiesparmodus", "noch 40 min")
    require_german(printed(sandbox, "why"), "why", "würde sagen:", "sagt: Aus Sicherheit")
    sandbox.world({"power": {**power, "batteryPercent": 16}})
    eventually(lambda: "abgeschaltet bis 18 %" in printed(sandbox, "why"), "it waits for a higher charge")
    history = printed(sandbox, "history")
    require_german(history, "history", "Akku unter der Sicherheitsgrenze", "1 Sicherheitsabschaltung",
                   "in 1 Zeitraum")
    require(re.search(r"^(Mo|Di|Mi|Do|Fr|Sa|So) \d{4}-\d\d-\d\d", history, re.MULTILINE), history)
    require_columns(history, "AB", "history")
    require_german(printed(sandbox, "doctor", status=1), "doctor", "Achtung", "Rechner",
                   "simuliert: nichts am wirklichen Rechner wird gehalten", "Tastenkürzel",
                   "SIMULIERT: nichts hält diesen Rechner wach.")
    settings = printed(sandbox, "settings", "list")
    require_german(settings, "settings list", "EINSTELLUNG", "Auch den Bildschirm anlassen", "15 Prozent", "none")
    require_columns(settings, "EINSTELLUNG", "settings list")
    agents = printed(sandbox, "agents")
    require_german(agents, "agents", "Nicht installiert", "ANBINDUNG", "Prozessbeobachtung", "nie")
    require_columns(agents, "AGENT", "agents")
    require_german(printed(sandbox, "agents", "setup", "claude", "--no-wait").split("\n\n")[0], "agents setup",
                   "fügen Sie dies in", "jedes Claude Code, das")
    require_german(printed(sandbox, "usage"), "usage", "Heute: 0 Token, -, 0 Sitzungen, 0 Runden")
    require_german(printed(sandbox, "budgets"), "budgets", "Geldbudgets: vimbrel budgets set daily 20")
    require("aus" != printed(sandbox, "status", "--format", "plain").strip(), "it runs")
    require_german(printed(sandbox, "status", "--format", "plain"), "a bar", "Akku unter der Sicherheitsgrenze")
    require_german(printed(sandbox, "pause", "45m"), "pause", "Schutz pausiert, bis ")
    line = subprocess.run([sandbox.vimbrel, "statusline"], env=sandbox.environment, text=True, capture_output=True,
                          input=json.dumps({"context_window": {"used_percentage": 40}})).stdout
    require_german(line, "statusline", "60% Kontext übrig · $0.00 heute")


def try_help_and_errors(sandbox):
    speak(sandbox, german)
    text = printed(sandbox, "--help")
    require_german(text, "--help", "Aufruf: vimbrel [OPTIONEN] BEFEHL", "Optionen:", "Befehle:", "Diese Hilfe ausgeben",
                   "Exit-Status:", "3  die Anwendung läuft nicht")
    descriptions = {line.index(line.split(None, 1)[1]) for line in text.splitlines()
                    if re.match(r"  [a-z]+ {2,}\S", line)}
    require(len(descriptions) == 1, "the descriptions of commands begin in one column:\n" + text)
    for command in sandbox_commands(text):
        require_german(printed(sandbox, command, "--help"), command + " --help", "Aufruf: vimbrel " + command)
    cases = {("statsu",): (2, "es gibt keinen Befehl statsu; meinten Sie status?\nSiehe: vimbrel --help"),
             ("status", "--jsn"): (2, "es gibt keine Option --jsn; meinten Sie --json?"),
             ("status",): (3, "Vimbrel läuft nicht. Starten Sie es mit: vimbrel run"),
             ("settings", "get"): (2, "key fehlt"),
             ("pause", "soon"): (2, "„soon“ ist keine Dauer; Beispiele: 90, 90s, 45m, 1h30m, 2d"),
             ("budgets", "set", "yearly", "5"): (2, "yearly ist nicht eines von {daily,weekly,monthly}"),
             ("hold", "maybe"): (2, "hold nimmt on, off oder eine Zeit und einen Befehl")}
    for arguments, (expected_status, expected) in cases.items():
        require_german(printed(sandbox, *arguments, status=expected_status), str(arguments), expected)
    sandbox.start()
    require_german(printed(sandbox, "settings", "set", "batteryFloorPercent", "70", status=2), "a setting out of bounds",
                   "batteryFloorPercent kann nicht „70“ sein: möglich ist eine ganze Zahl von 5 bis 50")
    require_german(printed(sandbox, "settings", "get", "masterEnable", status=2), "an unknown setting",
                   "es gibt keine Einstellung „masterEnable“; meinten Sie „masterEnabled“?")


def sandbox_commands(text):
    return re.findall(r"^  ([a-z]+) {2,}\S", text, re.MULTILINE)


def try_machines_read_english(sandbox):
    """The same question gets the same bytes in either language, on standard output."""
    speak(sandbox, german)
    output = open(sandbox.file("lines"), "wb")
    sandbox.process = subprocess.Popen([sandbox.vimbrel, "run", "--lines", "--simulate", sandbox.file("world.json")],
                                       env=sandbox.environment, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=open(sandbox.file("stderr"), "ab"))
    sandbox.wait_until_it_answers()
    sandbox.relay("--agent", "claude", "--state", "working", "--session-id", "one", "--no-pid")
    eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")
    examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../docs/examples")
    scenario = next(os.path.join(examples, name) for name in sorted(os.listdir(examples)) if name.endswith(".json"))
    questions = [("status", "--json"), ("why", "--json"), ("sessions", "--json"), ("settings", "list", "--json"),
                 ("settings", "get", "batteryFloorPercent"), ("agents", "--json"), ("usage", "rates", "--json"),
                 ("usage", "export", "--format", "prometheus"), ("budgets", "--json"), ("doctor", "--json"),
                 ("agents", "setup", "codex", "--json", "--no-wait"), ("simulate", scenario),
                 ("simulate", scenario, "--json"), ("--version",)]
    for question in questions:
        def is_same():
            answers = []
            for variables in ({}, german):
                speak(sandbox, variables)
                # One figure counts on from answer to answer.
                answers.append(re.sub(r'"elapsedProtectionSeconds": [0-9.]+', "", sandbox.command(*question).stdout))
            return answers[0] and answers[0] == answers[1]
        # Two answers may lie on two sides of a change.
        eventually(is_same, "%s prints the same in every language" % (question,))
    with open(sandbox.file("lines")) as lines:
        text = lines.read()
    require("Active (1 working agent) — Claude Code working; agents: Claude Code working; held: system" in text, text)
    require("SIMULIERTER Rechner" in sandbox.errors(), sandbox.errors())
    require(sandbox.stop() == 0, "it ends as it should")
    files = 0
    for folder, _, names in os.walk(sandbox.file(".local")):
        for name in names:
            if name.endswith((".json", ".jsonl", ".log")):
                with open(os.path.join(folder, name)) as file:
                    require("Arbeit" not in file.read(), name + " is English")
                files += 1
    require(files > 0, "something is kept")


def try_choices(sandbox):
    """Which language it is, whatever locales this machine has."""
    german_text, english_text = "läuft nicht", "is not running"
    for variables, expected in [
            ({}, english_text), ({"LANG": "de_DE.UTF-8"}, german_text), ({"LANG": "de_AT.utf8"}, german_text),
            ({"LANG": "en_US.UTF-8", "LC_MESSAGES": "de_DE.UTF-8"}, german_text),
            ({"LANG": "de_DE.UTF-8", "LC_ALL": "C"}, english_text), ({"LANGUAGE": "de"}, english_text),
            ({"LANG": "C.UTF-8", "LANGUAGE": "xx:de"}, german_text),
            ({"LANG": "de_DE.UTF-8", "LANGUAGE": "en:de"}, english_text),
            ({"LANG": "de_DE.ISO-8859-1"}, english_text), ({"LANG": "tlh_XX.UTF-8"}, english_text),
            ({"LANG": "C.UTF-8", "LANGUAGE": "../de"}, english_text)]:
        speak(sandbox, variables)
        require(expected in printed(sandbox, "status", status=3), "%s speaks so: %s" % (variables, expected))


def try_other_places(sandbox):
    """An installation that was moved takes its catalogues along; one without them, or with broken ones, speaks
    English."""
    speak(sandbox, german)
    original = sandbox.vimbrel
    place = sandbox.file("somewhere")
    os.makedirs(place + "/bin")
    shutil.copy(original, place + "/bin/vimbrel")
    shutil.copytree(catalogues(sandbox), place + "/share/locale")
    os.symlink(place + "/bin/vimbrel", sandbox.file("link"))
    for program in (place + "/bin/vimbrel", sandbox.file("link")):
        sandbox.vimbrel = program
        require_german(printed(sandbox, "status", status=3), program, "Vimbrel läuft nicht")
    catalogue = place + "/share/locale/de/LC_MESSAGES/vimbrel.mo"
    with open(catalogue, "rb") as file:
        whole = file.read()
    for broken in (whole[:20], whole[:3000], b"\xff" * 5000, b""):
        with open(catalogue, "wb") as file:
            file.write(broken)
        for arguments in (("status",), ("pause", "soon"), ("--help",)):
            done = sandbox.command(*arguments)
            require(done.returncode in (0, 2, 3) and done.stdout + done.stderr, "it works with a broken catalogue")
    shutil.rmtree(place + "/share")
    require("is not running" in printed(sandbox, "status", status=3), "without a catalogue it speaks English")
    sandbox.vimbrel = original


def main():
    with Sandbox() as sandbox:
        if not os.path.exists(catalogues(sandbox) + "/de/LC_MESSAGES/vimbrel.mo"):
            print("SKIPPED: this build has no catalogues")
            sys.exit(1 if os.environ.get("VIMBREL_REQUIRE_COMPONENTS") == "1" else 77)
    for test in (try_reports, try_help_and_errors, try_machines_read_english, try_choices, try_other_places):
        with Sandbox() as sandbox:
            test(sandbox)
        print("ok", test.__name__)


main()
