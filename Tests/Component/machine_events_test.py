#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The running application on a machine that can be changed: power supplies with the kernel's events as udev passes
them on, the firmware's profile, both names of the daemon that people choose to save power with, heat, and a lid.

machine_events_test.py VIMBREL

Everything runs in a mount and network namespace: files stand in for /sys and a forged message for udev's. Exit status
77 with one line when this machine cannot do it, or 1 then with VIMBREL_REQUIRE_COMPONENTS=1.
"""
import json
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../EndToEnd")
from namespaces import enter_namespaces  # noqa: E402

# Without an event a change is seen within 30 seconds: an event must be much faster than that.
SOON = 15
SUPPLIES = "/sys/class/power_supply"
THERMAL = "/sys/class/thermal"
INPUT = "/sys/class/input"


def write(path, **contents):
    os.makedirs(path, exist_ok=True)
    for name, value in contents.items():
        with open(f"{path}/{name}", "w") as file:
            file.write(f"{value}\n")


def murmur_hash(data):
    """MurmurHash2 with the seed 0: how libudev lets the kernel filter messages by subsystem."""
    mask, prime = 0xFFFFFFFF, 0x5BD1E995
    result = len(data) & mask
    at = 0
    while len(data) - at >= 4:
        word = struct.unpack_from("<I", data, at)[0] * prime & mask
        word = (word ^ word >> 24) * prime & mask
        result = (result * prime & mask) ^ word
        at += 4
    rest = data[at:]
    if rest:
        for place, byte in enumerate(rest):
            result ^= byte << (8 * place)
        result = result * prime & mask
    result = (result ^ result >> 13) * prime & mask
    return result ^ result >> 15


def send_event(device):
    """One "change" message as udev's daemon sends it to the group of its listeners."""
    properties = {"ACTION": "change", "DEVPATH": f"{SUPPLIES[4:]}/{device}", "SUBSYSTEM": "power_supply", "SEQNUM": "1"}
    body = b"".join(f"{key}={value}".encode() + b"\0" for key, value in properties.items())
    header = (b"libudev\0" + struct.pack(">I", 0xFEEDCAFE) + struct.pack("=III", 40, 40, len(body)) +
              struct.pack(">IIII", murmur_hash(b"power_supply"), 0, 0, 0))
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 15) as link:
        link.sendto(header + body, (0, 2))


class World:
    def __init__(self, program):
        self.program = program
        self.home = tempfile.mkdtemp(prefix="vimbrel-")
        # A link-up loopback is not needed; netlink works in an empty network namespace.
        for path in (SUPPLIES, "/sys/firmware", THERMAL, INPUT, "/run"):
            subprocess.check_call(["mount", "-t", "tmpfs", "-o", "mode=755", "test", path])
        os.makedirs("/run/udev")  # udev_monitor asks whether udev runs at all
        with open("/run/udev/control", "w"):
            pass
        write(f"{SUPPLIES}/AC", type="Mains", online=0)
        write(f"{SUPPLIES}/BAT0", type="Battery", status="Discharging", capacity=41)
        write("/sys/firmware/acpi", platform_profile="balanced")
        # Two zones of use, one that only tells of the firmware's nonsense, one that cannot be read just now.
        write(f"{THERMAL}/thermal_zone0", temp=50000, trip_point_0_type="passive", trip_point_0_temp=80000,
              trip_point_1_type="critical", trip_point_1_temp=100000)
        write(f"{THERMAL}/thermal_zone1", temp="unknown", trip_point_0_type="hot", trip_point_0_temp=90000)
        write(f"{THERMAL}/thermal_zone2", temp=99000, trip_point_0_type="critical", trip_point_0_temp=-273000)
        write(f"{THERMAL}/cooling_device0", type="Processor")
        write(f"{INPUT}/input0/device/capabilities", sw="0")
        write(f"{INPUT}/input1/device/capabilities", sw="1 3")
        write(f"{INPUT}/mouse0", dev="13:32")
        with open("/run/bus.conf", "w") as file:
            file.write('<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" '
                       '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd"><busconfig><type>system</type>'
                       '<keep_umask/><listen>unix:path=/run/system_bus</listen><auth>EXTERNAL</auth>'
                       '<policy context="default"><allow send_destination="*" eavesdrop="true"/>'
                       '<allow eavesdrop="true"/><allow own="*"/><allow user="*"/></policy></busconfig>')
        self.bus = subprocess.Popen(["dbus-daemon", "--config-file=/run/bus.conf", "--nofork"])
        self.until(lambda: os.path.exists("/run/system_bus"), 20, "the bus")
        self.environment = {"HOME": self.home, "PATH": "/usr/bin:/bin", "TZ": "UTC",
                            "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/system_bus",
                            "DBUS_SESSION_BUS_ADDRESS": "unix:path=/nonexistent",
                            "XDG_CURRENT_DESKTOP": "ubuntu:GNOME", "SSH_CONNECTION": "192.0.2.1 1 192.0.2.2 22"}
        self.process = subprocess.Popen([program, "run"], env=self.environment, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.until(self.power, 60, "the application")

    def until(self, condition, limit, what):
        start = time.monotonic()
        while not condition():
            assert time.monotonic() - start <= limit, f"{what}: not within {limit} s; {self.power()}"
            time.sleep(0.02)
        return time.monotonic() - start

    def ask(self, what):
        run = subprocess.run([self.program, what, "--json"], env=self.environment, capture_output=True)
        return json.loads(run.stdout) if run.stdout else None

    def power(self):
        state = self.ask("status")
        return state and state["power"]

    def finding(self, subject):
        """What `vimbrel doctor` says of it: the verdict and the explanation."""
        found = [finding for finding in self.ask("doctor")["findings"] if finding["subject"] == subject]
        return found and (found[0]["verdict"], found[0]["explanation"])

    def end(self):
        self.process.terminate()
        status = self.process.wait(timeout=60)
        self.bus.kill()
        shutil.rmtree(self.home, ignore_errors=True)
        return status


def supplies(world):
    start = world.power()
    assert start["batteryPercent"] == 41 and not start["isOnAC"], start
    write(f"{SUPPLIES}/AC", online=1)
    write(f"{SUPPLIES}/BAT0", status="Charging", capacity=42)
    send_event("AC")
    took = world.until(lambda: world.power()["isOnAC"], SOON, "the plug")
    now = world.power()
    assert now["batteryPercent"] == 42 and now["isCharging"], now
    print(f"a plug is seen {took * 1000:.0f} ms after its event")
    # Ten quick changes end in the last one.
    for percent in range(50, 60):
        write(f"{SUPPLIES}/BAT0", capacity=percent)
        send_event("BAT0")
    world.until(lambda: world.power()["batteryPercent"] == 59, SOON, "the last of many events")
    shutil.rmtree(f"{SUPPLIES}/BAT0")
    send_event("AC")
    world.until(lambda: world.power().get("batteryPercent") is None, SOON, "a battery that was taken out")
    write(f"{SUPPLIES}/BAT0", type="Battery", status="Discharging", capacity=30)
    write(f"{SUPPLIES}/AC", online=0)
    send_event("BAT0")
    world.until(lambda: world.power().get("batteryPercent") == 30, SOON, "a battery that was put in")


class Daemon:
    """A service with one property, in a process that can be killed: the daemon of power profiles under one of its
    names, or what tells of the lid."""

    def __init__(self, name, path, interface=None):
        self.process = subprocess.Popen([sys.executable, __file__, "--daemon", name, path, interface or name], stdin=subprocess.PIPE, text=True,
                                        stdout=subprocess.PIPE,
                                        env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/system_bus"})
        assert self.process.stdout.readline() == "ready\n"

    def choose(self, profile):
        self.process.stdin.write(profile + "\n")
        self.process.stdin.flush()

    def kill(self):
        self.process.kill()
        self.process.wait()


def serve_daemon(name, path, interface):
    import dbus
    import dbus.service
    from dbus.mainloop.glib import DBusGMainLoop
    from gi.repository import GLib
    DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection("unix:path=/run/system_bus")
    keep = dbus.service.BusName(name, bus)

    class Profiles(dbus.service.Object):
        profile = "balanced"

        @dbus.service.method("org.freedesktop.DBus.Properties", in_signature="ss", out_signature="v")
        def Get(self, _, key):
            if key == "LidClosed":
                return dbus.Boolean(self.profile == "closed")
            return self.profile if key == "ActiveProfile" else ""

        @dbus.service.signal("org.freedesktop.DBus.Properties", signature="sa{sv}as")
        def PropertiesChanged(self, interface, changed, invalidated):
            pass

    profiles = Profiles(bus, path)

    def read(source, _):
        line = sys.stdin.readline().strip()
        if not line:
            return False
        profiles.profile = line
        profiles.PropertiesChanged(interface, {"ActiveProfile": line}, [])
        return True

    GLib.io_add_watch(sys.stdin, GLib.IO_IN, read)
    print("ready", flush=True)
    assert keep
    GLib.MainLoop().run()


def low_power(world):
    assert not world.power()["isLowPowerMode"]
    for name, path in (("org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles"),
                       ("net.hadess.PowerProfiles", "/net/hadess/PowerProfiles")):
        daemon = Daemon(name, path)
        daemon.choose("power-saver")
        took = world.until(lambda: world.power()["isLowPowerMode"], SOON, f"power-saver of {name}")
        print(f"power-saver of {name} is seen after {took * 1000:.0f} ms")
        daemon.choose("balanced")
        world.until(lambda: not world.power()["isLowPowerMode"], SOON, f"balanced of {name}")
        daemon.choose("power-saver")
        world.until(lambda: world.power()["isLowPowerMode"], SOON, f"power-saver of {name} again")
        # The daemon dies: what it said last no longer holds.
        daemon.kill()
        world.until(lambda: not world.power()["isLowPowerMode"], SOON, f"the end of {name}")
    # Without a daemon the firmware's own profile counts.
    write("/sys/firmware/acpi", platform_profile="low-power")
    send_event("AC")
    world.until(lambda: world.power()["isLowPowerMode"], SOON, "the firmware's profile")


def heat(world):
    """Read every few seconds; past the firmware's last warning nothing is held."""
    assert world.finding("temperature") == ("works", "2 thermal zones are watched"), world.finding("temperature")
    for temperature, state in ((81000, "fair"), (91000, "serious"), (96000, "critical"), (93000, "critical"),
                               (60000, "nominal")):
        write(f"{THERMAL}/thermal_zone0", temp=temperature)
        world.until(lambda: world.ask("status")["thermalState"] == state, SOON, f"{temperature} as {state}")
        decision = world.ask("status")["decision"]
        assert ("blocked" in decision) == (state == "critical"), decision
    # A zone that wakes up is read, too.
    write(f"{THERMAL}/thermal_zone1", temp=90000)
    world.until(lambda: world.ask("status")["thermalState"] == "serious", SOON, "the other zone")


def lid(world):
    assert world.finding("lid")[0] == "warning", world.finding("lid")
    logind = Daemon("org.freedesktop.login1", "/org/freedesktop/login1")
    logind.choose("closed")
    world.until(lambda: world.ask("status")["lidClosed"], SOON, "a closed lid")
    assert world.finding("lid") == ("works", "the lid is closed"), world.finding("lid")
    logind.choose("open")
    world.until(lambda: not world.ask("status")["lidClosed"], SOON, "an open lid")
    assert world.finding("lid") == ("works", "the lid is open"), world.finding("lid")
    logind.kill()


def doctor(world):
    """What is said of a machine follows it."""
    for contents, verdict, explanation in ((None, "missing", "the machine counts as on AC power"),
                                           ({"type": "Battery", "status": "Discharging"}, "warning", "tells no charge"),
                                           ({"type": "Battery", "status": "Discharging", "capacity": 30}, "works", "30 %")):
        shutil.rmtree(f"{SUPPLIES}/BAT0", ignore_errors=True)
        if contents:
            write(f"{SUPPLIES}/BAT0", **contents)
        found = world.finding("battery")
        assert found[0] == verdict and explanation in found[1], found
    for subject in ("GNOME and the tray", "remote login"):
        assert world.finding(subject)[0] == "warning", subject
    assert not world.finding("KDE and the lid")


def main():
    if sys.argv[1:2] == ["--daemon"]:
        return serve_daemon(*sys.argv[2:5])
    enter_namespaces("mnp", root="only root can stand in for the kernel's power supplies", tools=("dbus-daemon",))
    world = World(sys.argv[1])
    supplies(world)
    low_power(world)
    heat(world)
    lid(world)
    doctor(world)
    assert world.end() == 0
    return 0


sys.exit(main())
