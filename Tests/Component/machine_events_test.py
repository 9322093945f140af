# SPDX-License-Identifier: Apache-2.0
"""The running application on a machine that can be changed: power supplies with the kernel's events as udev passes
them on, the firmware's profile, both names of the daemon that people choose to save power with, heat, and a lid.

Inside rig.sh with a system bus, and in a network of its own: files stand in for /sys and a forged message for udev's.
"""
import os
import shutil
import socket
import struct
import subprocess

from namespaces import enter_namespaces
from sandbox import Sandbox, eventually, require

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
    whole = len(data) // 4 * 4
    for (word,) in struct.iter_unpack("<I", data[:whole]):
        word = word * prime & mask
        word = (word ^ word >> 24) * prime & mask
        result = (result * prime & mask) ^ word
    if rest := data[whole:]:
        result = (result ^ int.from_bytes(rest, "little")) * prime & mask
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


class Machine(Sandbox):
    def __init__(self):
        super().__init__()
        for path in (SUPPLIES, "/sys/firmware", THERMAL, INPUT):
            subprocess.check_call(["mount", "-t", "tmpfs", "-o", "mode=755", "test", path])
        write("/run/udev", control="")  # udev_monitor asks whether udev runs at all
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
        self.environment.update(DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent", XDG_CURRENT_DESKTOP="ubuntu:GNOME",
                                SSH_CONNECTION="192.0.2.1 1 192.0.2.2 22")
        self.start("--lines")

    def soon(self, condition, what):
        eventually(condition, what, SOON)

    def power(self, name):
        return self.ask("status")["power"].get(name)

    def saves(self, wanted, what):
        self.soon(lambda: self.power("isLowPowerMode") == wanted, what)

    def finding(self, subject):
        """What `vimbrel doctor` says of it: the verdict and the explanation."""
        findings = {each["subject"]: (each["verdict"], each["explanation"]) for each in self.ask("doctor")["findings"]}
        return findings.get(subject)


class Daemon:
    """A service with one property, in a process that can be killed."""

    def __init__(self, name, path, interface, **properties):
        self.name, self.path, self.interface = name, path, interface
        self.process = subprocess.Popen(["/usr/bin/python3", "-m", "dbusmock", "--system", name, path, interface],
                                        stdout=subprocess.DEVNULL)
        subprocess.check_call(["gdbus", "wait", "--system", "--timeout", "20", name])
        self.call("AddProperties", **properties)

    def call(self, method, **properties):
        values = ", ".join("'%s': <%s>" % each for each in properties.items())
        subprocess.check_call(["gdbus", "call", "--system", "-d", self.name, "-o", self.path, "-m",
                               "org.freedesktop.DBus.Mock." + method, self.interface, "{%s}" % values],
                              stdout=subprocess.DEVNULL)

    def set(self, **properties):
        self.call("UpdateProperties", **properties)

    def kill(self):
        self.process.kill()
        self.process.wait()


def supplies(machine):
    require((machine.power("batteryPercent"), machine.power("isOnAC")) == (41, False), "as it starts")
    write(f"{SUPPLIES}/AC", online=1)
    write(f"{SUPPLIES}/BAT0", status="Charging", capacity=42)
    send_event("AC")
    machine.soon(lambda: machine.power("isOnAC"), "the plug")
    require(machine.power("batteryPercent") == 42 and machine.power("isCharging"), "all is read again")
    # Ten quick changes end in the last one.
    for percent in range(50, 60):
        write(f"{SUPPLIES}/BAT0", capacity=percent)
        send_event("BAT0")
    machine.soon(lambda: machine.power("batteryPercent") == 59, "the last of many events")
    shutil.rmtree(f"{SUPPLIES}/BAT0")
    send_event("AC")
    machine.soon(lambda: machine.power("batteryPercent") is None, "a battery that was taken out")
    write(f"{SUPPLIES}/BAT0", type="Battery", status="Discharging", capacity=30)
    write(f"{SUPPLIES}/AC", online=0)
    send_event("BAT0")
    machine.soon(lambda: machine.power("batteryPercent") == 30, "a battery that was put in")


def low_power(machine):
    require(not machine.power("isLowPowerMode"), "as it starts")
    for name in ("org.freedesktop.UPower.PowerProfiles", "net.hadess.PowerProfiles"):
        daemon = Daemon(name, "/" + name.replace(".", "/"), name, ActiveProfile="'balanced'")
        for profile in ("power-saver", "balanced", "power-saver"):
            daemon.set(ActiveProfile="'%s'" % profile)
            machine.saves(profile == "power-saver", f"{profile} of {name}")
        # The daemon dies: what it said last no longer holds.
        daemon.kill()
        machine.saves(False, f"the end of {name}")
    # Without a daemon the firmware's own profile counts.
    write("/sys/firmware/acpi", platform_profile="low-power")
    send_event("AC")
    machine.saves(True, "the firmware's profile")


def heat(machine):
    """Read every few seconds; past the firmware's last warning nothing is held."""
    def becomes(state):
        machine.soon(lambda: machine.ask("status")["thermalState"] == state, state)

    require(machine.finding("temperature") == ("works", "2 thermal zones are watched"), machine.finding("temperature"))
    for temperature, state in ((81000, "fair"), (91000, "serious"), (96000, "critical"), (93000, "critical"),
                               (60000, "nominal")):
        write(f"{THERMAL}/thermal_zone0", temp=temperature)
        becomes(state)
        decision = machine.ask("status")["decision"]
        require(("blocked" in decision) == (state == "critical"), decision)
    # A zone that wakes up is read, too.
    write(f"{THERMAL}/thermal_zone1", temp=90000)
    becomes("serious")


def lid(machine):
    require(machine.finding("lid")[0] == "warning", machine.finding("lid"))
    logind = Daemon("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                    LidClosed="false")
    for closed, told in (("true", "the lid is closed"), ("false", "the lid is open")):
        logind.set(LidClosed=closed)
        machine.soon(lambda: machine.ask("status")["lidClosed"] == (closed == "true"), told)
        require(machine.finding("lid") == ("works", told), machine.finding("lid"))
    logind.kill()


def doctor(machine):
    """What is said of a machine follows it."""
    for contents, verdict, explanation in ((None, "missing", "the machine counts as on AC power"),
                                           ({"type": "Battery", "status": "Discharging"}, "warning", "tells no charge"),
                                           ({"type": "Battery", "status": "Discharging", "capacity": 30}, "works", "30 %")):
        shutil.rmtree(f"{SUPPLIES}/BAT0", ignore_errors=True)
        if contents:
            write(f"{SUPPLIES}/BAT0", **contents)
        found = machine.finding("battery")
        require(found[0] == verdict and explanation in found[1], found)
    for subject in ("GNOME and the tray", "remote login"):
        require(machine.finding(subject)[0] == "warning", subject)
    require(not machine.finding("KDE and the lid"), "nothing is said of another desktop")


enter_namespaces("mn", root="only root can stand in for the kernel's power supplies")
with Machine() as machine:
    for test in (supplies, low_power, heat, lid, doctor):
        test(machine)
        print("ok:", test.__name__, flush=True)
    machine.stop()
