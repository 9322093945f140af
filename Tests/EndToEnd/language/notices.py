# SPDX-License-Identifier: Apache-2.0
"""The notices of the real application, in German, as the desktop's notification service gets them."""

import shutil
import subprocess

from sandbox import Sandbox, eventually, require, skip


def main():
    for tool in ("dbus-daemon", "gdbus"):
        if shutil.which(tool) is None:
            skip(tool + " is not installed")
    if subprocess.run(["/usr/bin/python3", "-c", "import dbusmock"], capture_output=True).returncode != 0:
        skip("python3-dbusmock is not installed")
    with Sandbox() as sandbox:
        bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address=1"], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True, env=sandbox.environment)
        address = bus.stdout.readline().strip()
        sandbox.environment.update({"DBUS_SESSION_BUS_ADDRESS": address, "LC_ALL": "C.UTF-8", "LANGUAGE": "de"})
        service = subprocess.Popen(
            ["/usr/bin/python3", "-m", "dbusmock", "--session", "--template", "notification_daemon",
             "--parameters", '{"capabilities": "body actions"}'],
            env=sandbox.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            def notices():
                asked = subprocess.run(
                    ["gdbus", "call", "--session", "-d", "org.freedesktop.Notifications", "-o",
                     "/org/freedesktop/Notifications", "-m", "org.freedesktop.DBus.Mock.GetMethodCalls", "Notify"],
                    env=sandbox.environment, capture_output=True, text=True)
                return asked.stdout if asked.returncode == 0 else ""

            eventually(notices, "the service answers")
            with open(sandbox.file("stderr"), "wb") as errors:
                # Not a simulated machine: that one shows nothing on a desktop.
                sandbox.process = subprocess.Popen([sandbox.vimbrel, "run", "--lines"], env=sandbox.environment,
                                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=errors)
            sandbox.wait_until_it_answers()
            sandbox.command("settings", "set", "releaseDelaySeconds", "0")
            sandbox.relay("--agent", "claude", "--state", "working", "--session-id", "one", "--no-pid")
            sandbox.relay("--agent", "codex", "--state", "working", "--session-id", "two", "--no-pid")
            eventually(lambda: "Vimbrel hält diesen Mac wach" in notices(), "the beginning is told")
            shown = notices()
            require("eines Coding-Agenten arbeitet." in shown or "von Coding-Agenten arbeiten." in shown, shown)
            require("1 h Pause" in shown and "pause-1h" in shown, "its button, whose key stays: " + shown)
            for session, agent in (("one", "claude"), ("two", "codex")):
                sandbox.relay("--agent", agent, "--state", "completed", "--session-id", session, "--no-pid")
            eventually(lambda: "Coding-Agenten sind fertig" in notices(), "the end is told")
            require("Der Rechner geht wieder wie gewohnt in Bereitschaft." in notices(), notices())
            # What is asked of the application stays English.
            require("No active agent sessions" in sandbox.ask("status")["statusDescription"], "the protocol is English")
        finally:
            for each in (service, bus):
                each.terminate()
                each.wait()


main()
