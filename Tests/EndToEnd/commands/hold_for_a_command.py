# SPDX-License-Identifier: Apache-2.0
"""`vimbrel hold TIME -- COMMAND`: the hold lasts as long as the command, this program, its time and the application
together; the command's end, its signals and its status are the user's own."""

import os
import signal
import subprocess
import sys

from sandbox import Sandbox, eventually, patience, require


class Held:
    """A command that says when it runs, tells of each hang-up, and ends when its input does."""

    # Signals come through a pipe: a shell's trap waits for its `read` when the signal came just before that.
    script = """
import os, select, signal, sys
heard, said = os.pipe()
os.set_blocking(said, False)
signal.set_wakeup_fd(said)
for number in (signal.SIGHUP, signal.SIGTERM):
    signal.signal(number, lambda *_: None)
print("ready", flush=True)
while True:
    readable, _, _ = select.select([0, heard], [], [])
    if heard in readable:
        if os.read(heard, 1)[0] == signal.SIGTERM:
            sys.exit(5)
        print("hup", flush=True)
    elif not os.read(0, 4096):
        sys.exit(9)
"""
    name = os.path.basename(sys.executable)

    def __init__(self, sandbox, *options):
        self.sandbox = sandbox
        with open(sandbox.file("hold-errors"), "wb") as errors:
            self.process = sandbox.popen("hold", *options, "--", sys.executable, "-c", self.script,
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors)
        require(self.process.stdout.readline() == b"ready\n", "the command runs")

    def says(self, text):
        eventually(lambda: text in self.sandbox.read("hold-errors"), "it says: " + text)

    def hang_up(self):
        """Wakes it, too: what it would try again in seconds it tries at once."""
        self.process.send_signal(signal.SIGHUP)

    def end(self):
        self.process.stdin.close()
        status = self.process.wait(timeout=patience)
        self.process.stdout.close()
        return status


def holds(sandbox):
    return [hold["command"] for hold in sandbox.ask("status")["commandHolds"]]


def with_the_command(sandbox):
    held = Held(sandbox, "5m")
    require(holds(sandbox) == [Held.name], "the command holds: %s" % holds(sandbox))
    require(sandbox.ask("status")["isHolding"], "it holds")
    held.hang_up()
    require(held.process.stdout.readline() == b"hup\n", "a hang-up is the command's")
    require(held.end() == 9, "the status is the command's")
    eventually(lambda: holds(sandbox) == [], "nothing is held afterwards")

    held = Held(sandbox, "--lid", "5m")
    held.process.terminate()
    require(held.process.wait(timeout=patience) == 5, "the command decides what a signal means")
    eventually(lambda: holds(sandbox) == [], "nothing is held afterwards")


def with_this_program(sandbox):
    held = Held(sandbox, "5m")
    held.process.kill()
    held.process.wait()
    eventually(lambda: holds(sandbox) == [], "a killed program holds nothing")
    held.process.stdin.close()
    require(held.process.stdout.read() == b"", "its command went on until its input ended")
    held.process.stdout.close()


def with_the_application(sandbox):
    held = Held(sandbox, "5m")
    sandbox.kill()
    held.says("Vimbrel went away; the command goes on")
    sandbox.start()
    require(holds(sandbox) == [], "a new application knows of nothing")

    def is_held_again():
        held.hang_up()
        return holds(sandbox) == [Held.name]
    eventually(is_held_again, "it is held again")
    held.says("Vimbrel is back")
    require(held.end() == 9, "the status is the command's")


def with_its_time(sandbox):
    held = Held(sandbox, "1s")
    held.says("the time of the hold is up")
    eventually(lambda: holds(sandbox) == [], "the hold is over")
    require(held.end() == 9, "the command goes on without it")


def as_it_was_given(sandbox):
    show = ["5m", "--", sys.executable, "-c", "import sys; print(sys.argv[1:])"]
    given = ["[a,b]", "[]", "", "--", "--lid", "{x}", "a b", "-h", "'\\"]
    result = sandbox.command("hold", *show, *given)
    require(result.stdout == "%s\n" % given, "the arguments are the command's: %s" % result.stdout)
    result = sandbox.command("hold", "5m", "true")
    require(result.returncode == 2 and "-- make" in result.stderr, "a command follows --: " + result.stderr)


def not_in_silence_when_nothing_is_held(sandbox):
    sandbox.world({"assertions": {"system": "fail"}})
    for arguments in (["5m", "--", "true"], ["on"]):
        def tells():
            result = sandbox.command("hold", *arguments)
            return result.returncode == 0 and "NOTHING: the machine can fall asleep" in result.stderr
        eventually(tells, "it says that nothing is held")
    require(sandbox.command("hold", "off").stderr == "", "nothing to hold, nothing to say")
    require(sandbox.command("doctor").returncode == 1, "a simulated machine keeps none awake")
    sandbox.world({})


def never_against_the_rules(sandbox):
    sandbox.world({"power": {"batteryPercent": 5, "isCharging": False, "isOnAC": False, "isLowPowerMode": False}})
    eventually(lambda: "blocked" in sandbox.ask("status")["decision"], "the battery is too low")
    held = Held(sandbox, "5m")
    held.says("the machine is NOT held")
    require(held.end() == 9, "the command runs all the same")


def what_cannot_be_held(sandbox):
    sandbox.write("text", "not a program")
    for options, status, said in ((["5m", "--", sandbox.file("text")], 126, "Permission denied"),
                                  (["5m", "--", "/nonexistent/program"], 127, "/nonexistent/program"),
                                  (["5m", "--", "sh", "-c", "kill -9 $$"], 128 + 9, ""),
                                  (["--lid", "5m"], 2, "a time and a command"),
                                  (["0s", "--", "true"], 2, "a hold needs a time"),
                                  (["soon", "--", "true"], 2, "soon"),
                                  (["8d", "--", "true"], 2, "a week at most")):
        result = sandbox.command("hold", *options)
        require(result.returncode == status and said in result.stderr, "%s: %d %s" % (options, result.returncode, result.stderr))
    sandbox.stop()
    result = sandbox.command("hold", "5m", "--", "echo", "started")
    require(result.returncode == 3 and result.stdout == "", "nobody can hold; then the command is not started")


def what_cannot_be_printed(sandbox):
    """A script that goes by the status must not take half a report for a whole one."""
    sandbox.start()
    for command in (["usage", "export", "--format", "prometheus"], ["status", "--json"], ["--help"]):
        with open("/dev/full", "wb") as full:
            result = sandbox.command(*command, stdout=full)
        require(result.returncode == 1 and "No space left" in result.stderr, "%s: %s" % (command, result))


def main():
    with Sandbox() as sandbox:
        sandbox.start()
        for part in (with_the_command, with_this_program, with_the_application, with_its_time, as_it_was_given,
                     not_in_silence_when_nothing_is_held, never_against_the_rules, what_cannot_be_held,
                     what_cannot_be_printed):
            part(sandbox)
            print(part.__name__, "as it must")


main()
