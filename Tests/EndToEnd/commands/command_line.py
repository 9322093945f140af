# SPDX-License-Identifier: Apache-2.0
"""Every command of `vimbrel`: what it answers, with which status, with and without a running application."""

import os
import shlex
import signal
import subprocess

from sandbox import Sandbox, eventually, patience, require


def expect(sandbox, cases, status=0):
    """Each command line and what it says: on standard error alone when the status is not 0."""
    for line, says in cases:
        done = sandbox.command(*shlex.split(line))
        require(done.returncode == status, "%s ended with %d: %s" % (line, done.returncode, done.stderr))
        require(says in (done.stderr if status else done.stdout), "%s lacks %r: %s" % (line, says, done))
        require(not status or done.stdout == "", "%s prints: %s" % (line, done.stdout))


def say_how_to_start_the_application(sandbox):
    expect(sandbox, [(line, "Start it with: vimbrel run") for line in (
        "status", "status --json", "watch", "why", "sessions", "settings list", "settings get masterEnabled",
        "settings set masterEnabled on", "settings reset", "pause 45m", "resume", "hold on", "hold --lid 1m -- true",
        "history", "diagnostics", "doctor")], status=3)


def explain_a_wrong_command_line(sandbox):
    expect(sandbox, [("--help", "Subcommands:"), ("run --help", "--simulate"), ("--version", "vimbrel ")])
    expect(sandbox, [
        ("", "vimbrel --help"), ("staus", "did you mean status?"), ("xyzzy", "there is no command xyzzy\n"),
        ("status --jsn", "did you mean --json?"), ("status more", "vimbrel status --help"),
        ("settings", "vimbrel settings --help"), ("settings lst", "did you mean list?"),
        ("settings set masterEnabled", "value is required"), ("hold", "vimbrel hold --help"),
        ("hold maybe", "hold takes on, off, or a time and a command"),
        ("status --format xyzzy", "plain, waybar, i3blocks or polybar"), ("history --since someday", "a day such as"),
        ("history --since 2026-02-02 --until 2026-02-01T00:00:00Z", "before --since"),
        ("history --since 9000-01-01", "--since is in the future"), ("simulate", "vimbrel simulate --help"),
        ("pause", "vimbrel pause --help"), ("pause soon", "soon"), ("pause until 25:00", "write it like 14:00")], status=2)
    expect(sandbox, [(command + " /nonexistent.json", "/nonexistent.json") for command in ("simulate", "run --simulate")],
           status=1)
    sandbox.environment["XDG_DATA_HOME"] = sandbox.file("d" * 90)
    expect(sandbox, [("run --simulate " + sandbox.file("world.json"), "longer than 102 bytes")], status=1)


def leave_no_directory_behind(sandbox):
    """`vimbrel simulate`, however it ends."""
    temporary = sandbox.environment["TMPDIR"] = sandbox.file("temporary")
    os.mkdir(temporary)
    # More than a pipe holds: the program cannot end before it is read.
    sandbox.write("wordy.json", '{"length":"1h","steps":[{"at":"1m","say":"%s"}]}' % ("x" * 300_000))
    words = ("simulate", sandbox.file("wordy.json"))
    for number in (0, signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        # Whoever runs the tests may ignore it, which is inherited.
        process = sandbox.popen(*words, stdout=subprocess.PIPE, preexec_fn=lambda: number and signal.signal(number, signal.SIG_DFL))
        names = eventually(lambda: os.listdir(temporary), "its directory")
        require(names[0].startswith("vimbrel-simulate-"), names)
        process.send_signal(number)
        process.communicate(timeout=patience)
        require(process.returncode == -number, "%d, not %d" % (process.returncode, -number))
        require(os.listdir(temporary) == [], "nothing is left behind after %d" % number)
    left = sandbox.popen(*words, stdout=subprocess.PIPE)
    left.stdout.read(1)
    left.stdout.close()
    require(left.wait(timeout=patience) == -signal.SIGPIPE, "it ends when nobody reads")
    require(os.listdir(temporary) == [], "and leaves nothing behind")
    sandbox.environment["TMPDIR"] = sandbox.file("missing")
    expect(sandbox, [(" ".join(words), "a directory for the run cannot be made in " + sandbox.file("missing"))], status=1)


def steer_the_running_application(sandbox):
    sandbox.start()
    expect(sandbox, [
        ("status", "SIMULATED"), ("hold on", "Manual hold requested"), ("status", "system sleep of a simulated machine"),
        ("pause 45m", "Protection paused, until "), ("why", "=> Pause"),
        ("why", "would say: Active (0 working agents) — Manual hold requested"), ("resume", "Manual hold requested"),
        # Today or, with the date before it, tomorrow.
        ("pause until 14:00", "14:00"), ("hold off", "Protection paused"), ("settings reset", "releaseDelaySeconds"),
        ("status", "Sleep enabled"), ("sessions", "No agents"),
        ("settings set releaseDelaySeconds 2m", "releaseDelaySeconds = 120 seconds"),
        ("settings get releaseDelaySeconds", "120\n"),
        ("settings reset releaseDelaySeconds", "releaseDelaySeconds = 30 seconds"),
        ("settings set waitingGraceSeconds 10m", "waitingGraceSeconds = 600 seconds"),
        ("settings set waitingGraceSeconds none", "waitingGraceSeconds = none\n"), ("status --format plain", "idle\n"),
        ("history", "Protected for"), ("history --since 2001-01-01 --until 2001-01-02", "Nothing was protected"),
        ("history --until 2001-01-02", "Nothing was protected"), ("diagnostics", '"appName": "Vimbrel"')])
    expect(sandbox, [
        ("settings get batteryFlor", 'there is no setting "batteryFlor"'),
        ("settings set batteryFloorPercnt 20", 'did you mean "batteryFloorPercent"?'),
        ("settings set batteryFloorPercent 99", "from 5 to 50"), ("settings set masterEnabled perhaps", "perhaps"),
        ("pause 0s", "more than 0"), ("settings set maximumHoldSeconds 5", "from 60 to 604800, or none")], status=2)
    doctor = sandbox.command("doctor")
    require(doctor.returncode == 1 and "hook socket" in doctor.stdout, "what is simulated keeps nothing awake: %s" % doctor)


def follow_the_state_for_a_bar(sandbox):
    """From before the application to after it."""
    bar = sandbox.popen("status", "--format", "plain", "--follow", stdout=subprocess.PIPE, text=True)
    for change, line in ((None, "off"), (sandbox.start, "idle"),
                         (lambda: sandbox.report("codex", "working", "s"), "1 working (simulated)"), (sandbox.kill, "off")):
        if change:
            change()
        require((said := bar.stdout.readline()) == line + "\n", said)
    bar.kill()
    bar.communicate()


def install_a_user_service_in_place_of_the_autostart_entry(sandbox):
    entry, unit = ".config/autostart/com.vimbrel.app.desktop", ".config/systemd/user/com.vimbrel.app.service"
    sandbox.write(entry, "[Desktop Entry]\n")
    expect(sandbox, [("run --install-service", sandbox.file(unit))])
    require(sandbox.read(unit) and not sandbox.read(entry), "one takes the place of the other")


def keep_the_keys_of_their_documents(sandbox):
    sandbox.start()
    sandbox.report("codex", "working", "s")
    sandbox.session("s", "working")
    for line, part, keys in (
            ("status", lambda found: found, "agentFamilies assertions budgets closedLid commandHolds decision "
             "elapsedProtectionSeconds helperStatus isHolding lastEvents lidClosed lowBudgetAlerts pauseUntil power "
             "protectionStartedAt sessions settings statusDescription thermalState visualState warnings"),
            ("status", lambda found: found["assertions"], "display mechanismDetails mechanisms simulated system"),
            ("status", lambda found: found["sessions"][0], "agentType confidence cwd hostAppName id integrationType "
             "lastEventAt lastEventDescription startedAt state"),
            ("why", lambda found: found, "closedLid decision now rules simulated statusDescription"),
            ("why", lambda found: found["rules"][0], "changesAt label outcome rule saw says saysDescription wouldChange"),
            ("sessions", lambda found: found, "sessions"),
            ("settings list", lambda found: found, "location settings warnings"),
            ("settings get batteryFloorPercent", lambda found: found,
             "default help isDefault key maximum minimum text type unit value")):
        found = sorted(part(sandbox.answer(*line.split())))
        require(found == keys.split(), "%s has the keys %s" % (line, found))


def refuse_a_second_application(sandbox):
    first = sandbox.start()
    expect(sandbox, [("run --simulate " + sandbox.file("world.json"), "already running (process %d)" % first.pid)], status=1)
    sandbox.report("claude", "working", "s")
    sandbox.session("s", "working")  # The first one keeps its sockets.


def hold_the_machine_from_a_hook_to_the_end_of_the_release_delay(sandbox):
    def holds():
        status = sandbox.ask("status")
        # What is decided and what is held never differ here: the simulated machine grants everything.
        require(status["isHolding"] == status["assertions"]["system"], status)
        return status["isHolding"] and status

    with open(sandbox.file("lines"), "wb") as lines:
        sandbox.start(stdout=lines)
    require(not holds(), "nothing is held without an agent")
    sandbox.report("claude", "working", "s")
    held = eventually(holds, "a hook holds the machine")
    require(held["decision"]["hold"]["activeAgentCount"] == 1, held)
    require(held["assertions"]["mechanisms"] == ["simulated"], held)
    sandbox.report("claude", "idle", "s")
    eventually(lambda: "Release debounce" in sandbox.ask("status")["statusDescription"], "it is held for a while")
    expect(sandbox, [("settings set releaseDelaySeconds 0", "")])
    eventually(lambda: not holds(), "and no longer")

    # The simulated machine is followed, and a broken file changes nothing.
    codex = {"processes": ["  812 /usr/local/bin/codex exec fix tests"]}
    sandbox.world(codex)
    eventually(holds, "a process holds it")
    sandbox.world({**codex, "thermalState": "critical"})
    eventually(lambda: not holds(), "heat cuts it off")
    require(sandbox.ask("status")["decision"]["blocked"]["block"] == "Thermal critical safety cutoff", "and says so")
    sandbox.write("world.json", '{"thermalState":)')
    eventually(lambda: "world.json" in sandbox.command("doctor").stdout, "the doctor tells of the file")
    require(sandbox.ask("status")["thermalState"] == "critical", "what was is still so")
    sandbox.world(codex)
    eventually(holds, "it is held again")

    sandbox.stop()
    said = sandbox.read("lines")
    require("Active (1 working agent) — Claude Code working" in said, said)
    require("Sleep enabled — No active agent sessions" in said, said)
    require(not os.path.exists(sandbox.control_socket), "its socket is gone")


for test in (say_how_to_start_the_application, explain_a_wrong_command_line, leave_no_directory_behind,
             steer_the_running_application, follow_the_state_for_a_bar, refuse_a_second_application,
             install_a_user_service_in_place_of_the_autostart_entry, keep_the_keys_of_their_documents,
             hold_the_machine_from_a_hook_to_the_end_of_the_release_delay):
    with Sandbox() as sandbox:
        test(sandbox)
    print("ok:", test.__name__, flush=True)
