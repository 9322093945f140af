# SPDX-License-Identifier: Apache-2.0
"""The real programs speak German to a person who wants it, and English to every machine. No locale needs to be
installed for it: the language comes from the environment's names and the catalogue beside the programs."""

import os
import re
import shutil

from sandbox import Sandbox, eventually, require, skip

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


def printed(sandbox, *arguments, status=0, **options):
    done = sandbox.command(*arguments, **options)
    require(done.returncode == status, "%s ended with %d: %s" % (arguments, done.returncode, done.stderr))
    return done.stdout + done.stderr


def require_german(text, what, *expected):
    for each in expected:
        require(each in text, "%s lacks %r:\n%s" % (what, each, text))
    # What is quoted is meant to be typed, or is somebody else's text.
    found = english_words.search(re.sub(r'"[^"]*"|„[^“]*“|--[a-z-]+|until \d\d:\d\d', "", text))
    require(found is None, "%s has the English word %r:\n%s" % (what, found and found.group(), text))


def require_answers(sandbox, answers):
    """Each command line and what its answer says; a number before these is its exit status."""
    for line, *expected in answers:
        status = expected.pop(0) if isinstance(expected[0], int) else 0
        require_german(printed(sandbox, *line.split(), status=status), line, *expected)


def try_reports(sandbox):
    sandbox.world({"power": {**power, "batteryPercent": 80, "isLowPowerMode": False}})
    sandbox.start()
    sandbox.report("claude", "working", "one")
    sandbox.report("codex", "waiting", "two")
    eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")
    require_answers(sandbox, [
        ("status", "SIMULIERT: nichts hält diesen Rechner wach", "Akkubetrieb, 80 %", "Verhindert", "Arbeitet", "Wartet",
         "Aktiv (2 arbeitende Agenten) – Claude Code, Codex CLI bei der Arbeit", "LETZTES EREIGNIS"),
        ("why", "Die Regeln der Reihe nach", "der Hauptschalter ist eingeschaltet", "ändern würde das: ",
         "80 % im Akkubetrieb, Untergrenze 15 %", "2 von 2 Sitzungen bei der Arbeit")])
    sandbox.world({"power": power})
    eventually(lambda: not sandbox.ask("status")["isHolding"], "the battery cuts it off")
    require_answers(sandbox, [
        ("status", "Aus Sicherheit gesperrt: Akku unter der Sicherheitsgrenze", "Energiesparmodus", "noch 40 min"),
        ("why", "würde sagen:", "sagt: Aus Sicherheit")])
    sandbox.world({"power": {**power, "batteryPercent": 16}})
    eventually(lambda: "abgeschaltet bis 18 %" in printed(sandbox, "why"), "it waits for a higher charge")
    require_answers(sandbox, [
        ("history", "Akku unter der Sicherheitsgrenze", "1 Sicherheitsabschaltung", "in 1 Zeitraum"),
        ("doctor", 1, "Achtung", "simuliert: nichts am wirklichen Rechner wird gehalten", "Tastenkürzel"),
        ("settings list", "EINSTELLUNG", "Auch den Bildschirm anlassen", "15 Prozent", "none"),
        ("agents", "Nicht installiert", "ANBINDUNG", "Prozessbeobachtung", "nie"),
        ("usage", "Heute: 0 Token, -, 0 Sitzungen, 0 Runden"),
        ("budgets", "Geldbudgets: vimbrel budgets set daily 20"),
        ("status --format plain", "Akku unter der Sicherheitsgrenze"),
        ("pause 45m", "Schutz pausiert, bis "),
        ("settings set batteryFloorPercent 70", 2,
         "batteryFloorPercent kann nicht „70“ sein: möglich ist eine ganze Zahl von 5 bis 50"),
        ("settings get masterEnable", 2, "es gibt keine Einstellung „masterEnable“; meinten Sie „masterEnabled“?")])
    history = printed(sandbox, "history")
    require(re.search(r"^(Mo|Di|Mi|Do|Fr|Sa|So) \d{4}-\d\d-\d\d", history, re.MULTILINE), history)
    require_german(printed(sandbox, "agents", "setup", "claude", "--no-wait").split("\n\n")[0], "agents setup",
                   "fügen Sie dies in", "jedes Claude Code, das")
    require_german(printed(sandbox, "statusline", input='{"context_window":{"used_percentage":40}}'), "statusline",
                   "60% Kontext übrig · $0.00 heute")


def try_help_and_errors(sandbox):
    text = printed(sandbox, "--help")
    require_answers(sandbox, [
        ("--help", "Aufruf: vimbrel [OPTIONEN] BEFEHL", "Optionen:", "Befehle:", "Diese Hilfe ausgeben", "Exit-Status:",
         "3  die Anwendung läuft nicht"),
        ("statsu", 2, "es gibt keinen Befehl statsu; meinten Sie status?\nSiehe: vimbrel --help"),
        ("status --jsn", 2, "es gibt keine Option --jsn; meinten Sie --json?"),
        ("status", 3, "Vimbrel läuft nicht. Starten Sie es mit: vimbrel run"),
        ("settings get", 2, "key fehlt"),
        ("pause soon", 2, "„soon“ ist keine Dauer; Beispiele: 90, 90s, 45m, 1h30m, 2d"),
        ("budgets set yearly 5", 2, "yearly ist nicht eines von {daily,weekly,monthly}"),
        ("hold maybe", 2, "hold nimmt on, off oder eine Zeit und einen Befehl"),
        *((command + " --help", "Aufruf: vimbrel " + command)
          for command in re.findall(r"^  ([a-z]+) {2,}\S", text, re.MULTILINE))])
    descriptions = {line.index(line.split(None, 1)[1]) for line in text.splitlines()
                    if re.match(r"  [a-z]+ {2,}\S", line)}
    require(len(descriptions) == 1, "the descriptions of commands begin in one column:\n" + text)


def try_machines_read_english(sandbox):
    """The same question gets the same bytes in either language, on standard output."""
    with open(sandbox.file("lines"), "wb") as lines:
        sandbox.start("--lines", "--simulate", sandbox.file("world.json"), stdout=lines)
    sandbox.report("claude", "working", "one")
    eventually(lambda: sandbox.ask("status")["isHolding"], "the machine is held")
    examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../docs/examples")
    scenario = next(os.path.join(examples, name) for name in sorted(os.listdir(examples)) if name.endswith(".json"))
    for question in ("status --json", "why --json", "sessions --json", "settings list --json", "agents --json",
                     "settings get batteryFloorPercent", "usage rates --json", "usage export --format prometheus",
                     "budgets --json", "doctor --json", "agents setup codex --json --no-wait", "simulate " + scenario,
                     "simulate %s --json" % scenario, "--version"):
        def is_same():
            answers = []
            for variables in ({}, german):
                speak(sandbox, variables)
                # One figure counts on from answer to answer.
                answers.append(re.sub(r'"elapsedProtectionSeconds": [0-9.]+', "", sandbox.command(*question.split()).stdout))
            return answers[0] and answers[0] == answers[1]
        # Two answers may lie on two sides of a change.
        eventually(is_same, question + " prints the same in every language")
    text = sandbox.read("lines")
    require("Active (1 working agent) — Claude Code working; agents: Claude Code working; held: system" in text, text)
    require("SIMULIERTER Rechner" in sandbox.errors(), sandbox.errors())
    sandbox.stop()
    kept = [os.path.join(folder, name) for folder, _, names in os.walk(sandbox.file(".local")) for name in names
            if name.endswith((".json", ".jsonl", ".log"))]
    require(kept and not any("Arbeit" in sandbox.read(path) for path in kept), "what is kept is English")


def try_choices(sandbox):
    """Which language it is, whatever locales this machine has; an installation that was moved takes its catalogues
    along, and one without them speaks English."""
    for variables, expected in (({}, "is not running"), ({"LANG": "de_AT.utf8"}, "läuft nicht"),
                                ({"LANG": "en_US.UTF-8", "LC_MESSAGES": "de_DE.UTF-8"}, "läuft nicht"),
                                ({"LANG": "de_DE.UTF-8", "LC_ALL": "C"}, "is not running"),
                                ({"LANG": "C.UTF-8", "LANGUAGE": "xx:de"}, "läuft nicht")):
        speak(sandbox, variables)
        require(expected in printed(sandbox, "status", status=3), "%s speaks so: %s" % (variables, expected))
    place = sandbox.file("somewhere")
    os.makedirs(place + "/bin")
    shutil.copy(sandbox.vimbrel, place + "/bin/vimbrel")
    shutil.copytree(catalogues(sandbox), place + "/share/locale")
    os.symlink(place + "/bin/vimbrel", sandbox.file("link"))
    for sandbox.vimbrel in (place + "/bin/vimbrel", sandbox.file("link")):
        require("läuft nicht" in printed(sandbox, "status", status=3), sandbox.vimbrel)
    with open(place + "/share/locale/de/LC_MESSAGES/vimbrel.mo", "r+b") as catalogue:
        catalogue.truncate(3000)
    printed(sandbox, "status", status=3)  # A broken one is no reason to fail.
    shutil.rmtree(place + "/share")
    require("is not running" in printed(sandbox, "status", status=3), "without a catalogue it speaks English")


for test in (try_reports, try_help_and_errors, try_machines_read_english, try_choices):
    with Sandbox() as sandbox:
        if not os.path.exists(catalogues(sandbox) + "/de/LC_MESSAGES/vimbrel.mo"):
            skip("this build has no catalogues")
        speak(sandbox, german)
        test(sandbox)
