# SPDX-License-Identifier: Apache-2.0
"""The product's promise, kept by real processes on real services: an agent's hook keeps the machine awake, and the
desktop tells of it. Runs inside rig.sh with the parts that CMakeLists.txt names.

  application_test.py TEST…"""

import os
import signal
import subprocess
import sys

from sandbox import Sandbox, eventually, patience, require


def order(text):
    """Gives the rig an order ("restart logind") and waits until it is carried out."""
    with open(os.environ["VIMBREL_RIG"] + "/control", "w") as control:
        control.write(text + "\n")
    with open(os.environ["VIMBREL_RIG"] + "/answer") as answer:
        require(answer.readline() == "ok\n", text)


def run(*words):
    return subprocess.run(words, capture_output=True, text=True, timeout=patience).stdout


def bus_call(bus, service, path, method):
    return run("gdbus", "call", "--" + bus, "-d", service, "-o", path, "-m", method)


def inhibitors():
    """What systemd-logind itself lists of ours."""
    return bus_call("system", "org.freedesktop.login1", "/org/freedesktop/login1",
                    "org.freedesktop.login1.Manager.ListInhibitors").count("('idle', 'Vimbrel'")


def session_inhibitors():
    return bus_call("session", "org.gnome.SessionManager", "/mock", "org.vimbrel.Mock.Held").count("Vimbrel")


class Application(Sandbox):
    """`vimbrel run` on the rig's machine, whose agents rest for a second before it may sleep."""

    def __init__(self, **variables):
        super().__init__()
        for name in ("DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"):
            if name in os.environ:
                self.environment[name] = os.environ[name]
        self.environment.update(variables)
        self.start("--lines")
        self.ask("settings.set", key="releaseDelaySeconds", value=1)

    def agent(self, state):
        self.report("claude", state, "s1")

    def status(self):
        return self.ask("status")

    def is_held_by(self, *mechanisms):
        eventually(lambda: self.status()["assertions"]["mechanisms"] == list(mechanisms), "held by %s" % (mechanisms,))

    def setting(self, key):
        return self.ask("settings.get", key=key)["value"]


def has(count, what=inhibitors):
    eventually(lambda: what() == count, "%d inhibitors" % count)


def holds_from_the_hook_to_the_end_of_the_release_delay():
    with Application() as application:
        require(inhibitors() == 0, "nothing is held without an agent")
        application.agent("working")
        has(1)
        application.is_held_by("logind")
        require(not application.status()["assertions"]["simulated"], "in earnest")
        application.agent("idle")
        has(0)
        application.stop()


def loses_its_inhibitor_with_its_life_and_with_a_stop():
    for end in (signal.SIGKILL, signal.SIGTERM):
        with Application() as application:
            application.agent("working")
            has(1)
            application.process.send_signal(end)
            application.process.wait()
            has(0)


def neither_loses_nor_doubles_it_when_logind_restarts():
    with Application() as application:
        application.agent("working")
        has(1)
        for orders in (["restart logind"], ["kill logind", "start logind"]):
            for each in orders:
                order(each)
            has(1)
            # A second one would be taken when the name's new owner is noticed, which the status then shows.
            application.is_held_by("logind")
            require(inhibitors() == 1, "one after " + orders[0])
        application.agent("working")
        require(inhibitors() == 1, "one however often it is reported")


def lose_the_system_bus(how, meanwhile):
    """The bus dies, and with it whoever lives on it; `meanwhile` happens before all of them are back."""
    order(how + " system-bus")
    # These end by themselves when their bus does, or are ended now.
    order("kill logind")
    order("kill polkit")
    meanwhile()
    for each in ("start system-bus", "start polkit", "start logind"):
        order(each)


def lives_through_the_death_of_the_whole_bus():
    with Application() as application:
        def goes_on():
            application.is_held_by()
            application.agent("working")
            require(application.status()["isHolding"], "the decision does not depend on the bus")

        def ends():
            application.agent("idle")
            eventually(lambda: not application.status()["isHolding"], "it ends")

        application.agent("working")
        has(1)
        for how in ("kill", "stop"):
            application.is_held_by("logind")
            lose_the_system_bus(how, goes_on)
            has(1)
        # What ended while nobody could be told is not taken up again.
        lose_the_system_bus("kill", ends)
        application.agent("working")
        has(1)
        application.agent("idle")
        has(0)
        application.stop()


def lives_through_the_death_of_the_session_bus():
    with Application() as application:
        application.agent("working")
        has(1, session_inhibitors)
        for how in ("kill", "stop"):
            # The service has heard of the hold before the application knows that it is granted.
            application.is_held_by("gnome-session")
            order(how + " session")
            order("kill gnome-session")
            application.is_held_by()
            order("start session")
            order("start gnome-session")
            has(1, session_inhibitors)
        application.stop()
        require(session_inhibitors() == 0, "nothing is left")


def says_that_it_was_refused():
    with Application() as application:
        application.agent("working")
        status = eventually(lambda: (now := application.status())["isHolding"] and now, "the decision")
        require(not status["assertions"]["system"] and "refused" in str(status["assertions"]), status)
        require(inhibitors() == 0, "nothing is held")
        require("refused" in application.command("doctor").stdout, "the doctor tells, too")


def notices(variables, begins, works, ends):
    def shown(count):
        eventually(lambda: run("dunstctl", "count", "displayed").strip() == str(count), "%d notices" % count)

    with Application(**variables) as application:
        application.agent("working")
        shown(1)
        run("dunstctl", "action", "0")
        eventually(lambda: application.status()["pauseUntil"], "its action pauses for an hour")
        application.ask("resume")
        shown(1)  # Protection started again.
        application.agent("idle")
        shown(2)
        run("dunstctl", "close-all")
        shown(0)
        history = run("dunstctl", "history")
        for text in (begins, works, ends):
            require(text in history, "%s lacks %s" % (history, text))
        # What is asked of the application stays English.
        require("No active agent sessions" in application.status()["statusDescription"], "the protocol is English")
        application.stop()


def notices_tell_of_the_start_and_of_the_end():
    notices({}, "Vimbrel is protecting this Mac", "1 coding agent session working.", "Coding agents finished")


def notices_are_german_for_those_who_want_it():
    notices({"LC_ALL": "C.UTF-8", "LANGUAGE": "de"}, "Vimbrel hält diesen Mac wach", "eines Coding-Agenten arbeitet.",
            "Coding-Agenten sind fertig")


def a_shortcut_flips_the_master_switch():
    with Application() as application:
        for wanted in (False, True):
            run("xdotool", "key", "alt+super+l")
            eventually(lambda: application.setting("masterEnabled") == wanted, "switched")
        require("Alt+Super+L switches protection" in application.command("doctor").stdout, "the doctor knows")
        with Application() as second:
            require("another program holds Alt+Super+L" in second.command("doctor").stdout, "and says who has it")


for test in sys.argv[1:]:
    globals()[test]()
    print("ok:", test, flush=True)
