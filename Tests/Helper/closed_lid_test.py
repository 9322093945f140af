#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The helper among the real systemd-logind and polkitd, with a lid that can be closed.

closed_lid_test.py HELPER HOLD_LEASE POLICY_FILE [TEST…]

Everything runs in a mount and process namespace with a private /run, so that nothing of this machine is touched
and everything ends with the test. Exit status 77 with one line when this machine cannot do it, or 1 then with
VIMBREL_REQUIRE_COMPONENTS=1.
"""
import json
import os
import random
import shutil
import socket
import struct
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../EndToEnd")
from namespaces import enter_namespaces  # noqa: E402

LOGIND = "/lib/systemd/systemd-logind"
POLKITD = "/usr/lib/polkit-1/polkitd"
NOBODY = 65534
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><keep_umask/><listen>unix:path=/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
<allow user="*"/></policy></busconfig>"""
LID_DEVICE = """P: /devices/LNXSYSTM:00/PNP0C0D:00/input/input0
E: EV=21
E: NAME="Lid Switch"
E: SW=1
E: SUBSYSTEM=input

P: /devices/LNXSYSTM:00/PNP0C0D:00/input/input0/event0
N: input/event0
E: DEVNAME=/dev/input/event0
E: MAJOR=13
E: MINOR=64
E: SUBSYSTEM=input
E: TAGS=:power-switch:
A: dev=13:64
"""


def until(condition, limit, what):
    """Waits for the condition and returns how long that took; fails after `limit` seconds."""
    start = time.monotonic()
    while not condition():
        if time.monotonic() - start > limit:
            raise AssertionError(f"{what}: not within {limit} s")
        time.sleep(0.005)
    return time.monotonic() - start


class World:
    """A system bus, systemd-logind with a lid switch, polkitd, and a service manager that notes what it should start."""

    def __init__(self, policy):
        self.plain = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "UMOCKDEV_DIR", "NOTIFY_SOCKET")}
        self.private_directories(policy)
        self.start(["dbus-daemon", "--config-file=/run/bus.conf", "--nofork"])
        until(lambda: os.path.exists("/run/dbus/system_bus_socket"), 10, "the bus")
        from gi.repository import Gio
        self.gio = Gio
        self.bus = Gio.DBusConnection.new_for_address_sync(
            "unix:path=/run/dbus/system_bus_socket",
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        self.mock_service_manager()
        self.start([POLKITD, "--no-debug"])
        self.wait_for_name("org.freedesktop.PolicyKit1")
        self.make_lid()
        self.start_logind()

    def private_directories(self, policy):
        subprocess.check_call("mount -t tmpfs -o mode=755 test /run", shell=True)
        # Some tests run the helper as another user.
        here = os.path.dirname(os.path.abspath(__file__))
        subprocess.check_call([f"{here}/../Component/make_reachable.sh", f"{here}/../.."], env=self.plain)
        for name in ("dbus", "user", "udev/data", "udev/tags/power-switch", "systemd/logind.conf.d",
                     *(f"systemd/{x}" for x in ("inhibit", "sessions", "seats", "users", "machines", "shutdown"))):
            os.makedirs(f"/run/{name}")
        with open("/run/systemd/logind.conf.d/test.conf", "w") as file:
            file.write("[Login]\nHandleLidSwitch=suspend\nHandleLidSwitchExternalPower=suspend\n"
                       "HandleLidSwitchDocked=suspend\nHoldoffTimeoutSec=0\nInhibitDelayMaxSec=1\n")
        with open("/run/bus.conf", "w") as file:
            file.write(BUS_CONFIGURATION)
        # Our action beside those of the distribution, and none of the administrator's rules.
        actions = "/usr/share/polkit-1/actions"
        shutil.copytree(actions, "/run/actions")
        shutil.copy(policy, "/run/actions")
        subprocess.check_call(f"mount --bind /run/actions {actions}", shell=True)
        subprocess.check_call("mount -t tmpfs -o mode=755 test /etc/polkit-1/rules.d", shell=True)

    def start(self, command, **options):
        options = {"env": self.plain, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, **options}
        return subprocess.Popen(command, **options)

    def call(self, service, path, interface, method, arguments=None):
        return self.bus.call_sync(service, path, interface, method, arguments, None,
                                  self.gio.DBusCallFlags.NO_AUTO_START, 5000, None).unpack()

    def wait_for_name(self, name):
        from gi.repository import GLib
        def owned():
            return self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "NameHasOwner",
                             GLib.Variant("(s)", (name,)))[0]
        until(owned, 20, name)

    def mock_service_manager(self):
        from gi.repository import GLib
        manager, root = "org.freedesktop.systemd1.Manager", "/org/freedesktop/systemd1"
        self.start(["/usr/bin/python3", "-m", "dbusmock", "--system", "-l", "/run/manager.log",
                    "org.freedesktop.systemd1", root, manager])
        self.wait_for_name("org.freedesktop.systemd1")
        def mock(method, signature, *arguments):
            self.call("org.freedesktop.systemd1", root, "org.freedesktop.DBus.Mock", method,
                      GLib.Variant(signature, arguments))
        for method, inputs, output, code in (("Subscribe", "", "", ""),
                                             ("StartUnit", "ss", "o", 'ret="/org/freedesktop/systemd1/job/1"')):
            mock("AddMethod", "(sssss)", manager, method, inputs, output, code)
        mock("AddObject", "(ssa{sv}a(ssss))", f"{root}/unit/suspend_2etarget", "org.freedesktop.systemd1.Unit",
             {"LoadState": GLib.Variant("s", "loaded"), "ActiveState": GLib.Variant("s", "inactive")}, [])

    def make_lid(self):
        import gi
        gi.require_version("UMockdev", "1.0")
        from gi.repository import UMockdev
        self.testbed = UMockdev.Testbed.new()
        root = self.testbed.get_root_dir()
        self.testbed.add_from_string(LID_DEVICE)
        os.makedirs(root + "/run/udev/data", exist_ok=True)
        for place in (root + "/run/udev/data", "/run/udev/data"):
            with open(place + "/c13:64", "w") as file:
                file.write("E:ID_INPUT=1\nE:ID_INPUT_SWITCH=1\nG:power-switch\nQ:power-switch\nV:1\n")
        open("/run/udev/tags/power-switch/c13:64", "w").close()
        os.makedirs(root + "/sys/power", exist_ok=True)
        with open(root + "/sys/power/state", "w") as file:
            file.write("freeze mem\n")
        name = b"Lid Switch\0".ljust(256, b"\0").hex().upper()
        with open("/run/lid.ioctl", "w") as file:
            file.write("@DEV /dev/input/event0\nEVIOCGBIT(0) 8 2100000000000000\nEVIOCGBIT(5) 8 0100000000000000\n"
                       f"EVIOCGBIT(1) 96 {'00' * 96}\nEVIOCGNAME(0) 11 {name}\nEVIOCGSW(0) 8 0000000000000000\n")
        self.testbed.load_ioctl("/dev/input/event0", "/run/lid.ioctl")
        self.mocked = {**self.plain, "UMOCKDEV_DIR": root, "LD_PRELOAD": "libumockdev-preload.so.0",
                       "SYSTEMD_LOG_TARGET": "console"}

    def start_logind(self):
        self.logind = self.start([LOGIND], env=self.mocked)
        self.wait_for_name("org.freedesktop.login1")

    def kill_logind(self):
        self.logind.kill()
        self.logind.wait()

    def logind_property(self, name):
        from gi.repository import GLib
        return self.call("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.DBus.Properties", "Get",
                         GLib.Variant("(ss)", ("org.freedesktop.login1.Manager", name)))[0]

    def resume(self):
        """As after a suspend: logind starts anew, with an open lid."""
        self.kill_logind()
        self.start_logind()

    def set_lid(self, closed):
        # Two input_event records: the switch, and the end of the report.
        os.write(self.testbed.get_dev_fd("/dev/input/event0"),
                 struct.pack("qqHHi", 1, 0, 5, 0, closed) + struct.pack("qqHHi", 1, 0, 0, 0, 0))
        until(lambda: self.logind_property("LidClosed") == closed, 5, "the lid")

    def suspends(self):
        with open("/run/manager.log") as file:
            return sum("StartUnit" in line and "suspend.target" in line for line in file)

    def covered(self):
        """Whether logind itself lists our inhibitor."""
        inhibitors = self.call("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                               "ListInhibitors")[0]
        return any(i[0] == "sleep:idle:handle-lid-switch" and i[1] == "Vimbrel" and i[3] == "block" for i in inhibitors)


class Actors:
    """The helper and its client, as processes that can be killed at any moment."""

    def __init__(self, world, name, helper_arguments=(), user=None):
        self.world, self.user = world, user
        os.makedirs(f"/run/{name}", mode=0o755)
        if user:
            os.chown(f"/run/{name}", user, user)
        self.socket, self.state = f"/run/{name}/s", f"/run/{name}/state"
        self.arguments = ["--socket", self.socket, "--state", self.state, *helper_arguments]
        self.helper = self.client = None

    def start_helper(self):
        self.helper = self.world.start([HELPER, *self.arguments], user=self.user, group=self.user,
                                       extra_groups=[] if self.user else None)
        until(lambda: served(self.socket), 5, "the helper")

    def start_client(self, ttl, interval=100):
        self.client = self.world.start([HOLD_LEASE, self.socket, str(ttl), str(interval)])

    def kill(self, which):
        process = getattr(self, which)
        if process:
            process.kill()
            process.wait()
        setattr(self, which, None)

    def ask(self, user=0, **request):
        """One exchange as the given user; the parsed answer."""
        code = ("import socket,sys; s=socket.socket(socket.AF_UNIX); s.settimeout(3); s.connect(sys.argv[1]);"
                "s.send(sys.argv[2].encode()); print(s.recv(8192).decode())")
        output = subprocess.run(["/usr/bin/python3", "-c", code, self.socket, json.dumps(request)], user=user, group=user,
                                extra_groups=[], env=self.world.plain, capture_output=True, text=True, check=True).stdout
        return json.loads(output)


def served(path):
    with socket.socket(socket.AF_UNIX) as probe:
        try:
            probe.connect(path)
        except OSError:
            return False
        return True


class ClosedLid(unittest.TestCase):
    world = None

    @classmethod
    def setUpClass(cls):
        cls.world = World(POLICY)

    def actors(self, **options):
        actors = Actors(self.world, self._testMethodName, **options)
        for name in ("client", "helper"):
            self.addCleanup(actors.kill, name)
        return actors

    def test_does_not_suspend_while_held_and_suspends_when_the_lease_ends(self):
        world, actors = self.world, self.actors()
        actors.start_helper()
        actors.start_client(ttl=2)
        until(world.covered, 5, "the inhibitor")
        before = world.suspends()
        world.set_lid(1)
        time.sleep(0.7)
        self.assertEqual(world.suspends(), before, "suspended in spite of the hold")
        actors.kill("client")
        took = until(lambda: world.suspends() == before + 1, 2 + 5, "the suspend after the last lease")
        self.assertGreater(took, 1, "the lease was cut short")
        world.resume()
        world.set_lid(1)
        until(lambda: world.suspends() == before + 2, 5, "the suspend without a hold")
        world.resume()

    def test_the_running_application_covers_the_lid_and_lets_go(self):
        world = self.world
        # The application finds the helper at the place of the system's own.
        actors = self.actors(helper_arguments=["--socket", "/var/run/vimbrel-helper.sock"])
        actors.socket = "/var/run/vimbrel-helper.sock"
        actors.start_helper()
        home = "/run/application"
        os.makedirs(f"{home}/.config/com.vimbrel.app")
        with open(f"{home}/.config/com.vimbrel.app/settings.json", "w") as file:
            json.dump({"releaseDelaySeconds": 0}, file)
        environment = {"HOME": home, "PATH": "/usr/bin:/bin", "LANG": "C.UTF-8"}
        hook_socket = f"{home}/.local/share/Vimbrel/run/vimbrel.sock"

        def run_application():
            actors.client = world.start([os.environ["VIMBREL_PROGRAM"], "run"], env=environment)
            until(lambda: served(hook_socket), 10, "the application")

        def report(state):
            subprocess.run([os.environ["VIMBREL_RELAY_PROGRAM"], "--agent", "claude", "--state", state, "--session", "s"],
                           env=environment, check=True)

        run_application()
        self.assertFalse(world.covered())
        report("working")
        until(world.covered, 5, "the inhibitor")
        before = world.suspends()
        world.set_lid(1)
        time.sleep(0.7)
        self.assertEqual(world.suspends(), before, "suspended in spite of a working agent")
        report("idle")
        until(lambda: world.suspends() == before + 1, 5, "the suspend when the agent was done")
        world.resume()
        # Killed while it holds: the lease of 60 seconds ends by itself.
        report("working")
        until(world.covered, 5, "the inhibitor of the second hold")
        actors.kill("client")
        until(lambda: not world.covered(), 60 + 5, "the end of the dead application's lease")

    def test_survives_logind(self):
        world, actors = self.world, self.actors()
        actors.start_helper()
        actors.start_client(ttl=60)
        until(world.covered, 5, "the inhibitor")
        world.kill_logind()
        world.start_logind()
        until(world.covered, 6, "the inhibitor after logind's restart")
        actors.kill("client")
        actors.kill("helper")
        until(lambda: not world.covered(), 2, "the end of the inhibitor with its holder")

    def test_is_right_after_200_kills(self):
        world, actors = self.world, self.actors()
        seed = int(os.environ.get("VIMBREL_SEED", "20261122"))
        chance = random.Random(seed)
        ttl, kills, slowest_end, slowest_return = 0.3, 0, 0.0, 0.0
        while kills < 200:
            where = f"seed {seed}, after {kills} kills"
            if not actors.helper:
                actors.start_helper()
            if not actors.client:
                actors.start_client(ttl, interval=50)
            until(world.covered, 5, f"{where}: the inhibitor")
            time.sleep(chance.uniform(0, 0.12))
            victim = chance.choice(("helper", "client", "both"))
            if victim != "client":
                actors.kill("helper")
                kills += 1
                until(lambda: not world.covered(), 1, f"{where}: the end of the inhibitor with its holder")
                if victim == "both":
                    actors.kill("client")
                    kills += 1
                time.sleep(chance.choice((0, 0, chance.uniform(0, 0.1))))
                actors.start_helper()
            if victim == "helper":
                slowest_return = max(slowest_return, until(world.covered, 1, f"{where}: the wanted inhibitor"))
            else:
                if victim == "client":
                    actors.kill("client")
                    kills += 1
                slowest_end = max(slowest_end, until(lambda: not world.covered(), ttl + 5,
                                                     f"{where}: the end of the unwanted inhibitor"))
        print(f"{kills} kills: wanted again after at most {slowest_return:.3f} s, "
              f"gone after at most {slowest_end:.3f} s with leases of {ttl} s")

    def test_takes_an_unexpired_lease_up_again_by_itself(self):
        world, actors = self.world, self.actors()
        actors.start_helper()
        self.assertEqual(actors.ask(command="acquire", leaseId="A", ttlSeconds=3), {"ok": True})
        actors.kill("helper")
        until(lambda: not world.covered(), 1, "the end of the inhibitor with its holder")
        actors.start_helper()
        until(world.covered, 1, "the lease without its client")
        until(lambda: not world.covered(), 3 + 5, "the end of the lease")

    def test_obeys_polkit(self):
        world, actors = self.world, self.actors()
        actors.start_helper()
        acquire = {"command": "acquire", "leaseId": "A", "ttlSeconds": 5}
        answer = actors.ask(user=NOBODY, **acquire)
        self.assertFalse(answer["ok"])
        self.assertIn("polkit asks for an administrator's authentication", answer["error"])
        self.assertFalse(world.covered())
        with open("/etc/polkit-1/rules.d/10-test.rules", "w") as file:
            file.write('polkit.addRule(function(action, subject) { if (action.id == "com.vimbrel.helper.hold" && '
                       'subject.user == "nobody") return polkit.Result.YES; });')
        until(lambda: actors.ask(user=NOBODY, **acquire)["ok"], 5, "the new rule")
        self.assertTrue(world.covered())
        self.assertFalse(actors.ask(user=NOBODY, command="uninstall")["ok"])
        self.assertTrue(actors.ask(command="uninstall")["ok"])
        self.assertEqual(actors.helper.wait(timeout=5), 0)
        self.assertFalse(world.covered())

    def test_says_why_a_users_own_helper_cannot_hold(self):
        actors = self.actors(helper_arguments=["--user"], user=NOBODY)
        actors.start_helper()
        answer = actors.ask(user=NOBODY, command="acquire", leaseId="A", ttlSeconds=5)
        self.assertFalse(answer["ok"])
        self.assertRegex(answer["error"], "^the system does not let the helper disable sleep: .")


if __name__ == "__main__":
    enter_namespaces("mp", "umockdev-wrapper", root="only root can have a private systemd-logind with a lid",
                     tools=("dbus-daemon", LOGIND, POLKITD))
    HELPER, HOLD_LEASE, POLICY, *names = (os.path.abspath(a) if "/" in a else a for a in sys.argv[1:])
    unittest.main(warnings="ignore", argv=[sys.argv[0], "-v", *(f"ClosedLid.{name}" for name in names)])
