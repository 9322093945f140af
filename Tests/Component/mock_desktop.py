#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""One session service that lets applications keep the desktop awake, as the real ones do it: cookies, release
by cookie, release when the client leaves the bus, and what each lets others read back.

usage: mock_desktop.py gnome-session|power-management|screensaver|screensaver-bare|portal-desktop

"screensaver-bare" answers only at /ScreenSaver and hands out the cookie 0 first.
"portal-desktop" is the desktop behind xdg-desktop-portal: it grants every global shortcut, or declines after
Decline() at /mock, and Press() presses the one that was bound last.
Every service also answers Held() -> as, "reason" of each inhibitor, at /mock on interface org.vimbrel.Mock.
After Delay() there, it takes inhibitors as before but does not say so until Answer().
"""
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
held = {}  # cookie: (application, reason, flags, exported object or None)
leaving = {}  # unique name: its watch


def take(sender, application, reason, flags=0, exported=None, first=1):
    cookie = first + take.count
    take.count += 1
    held[cookie] = (str(application), str(reason), int(flags), exported and exported(cookie, application, flags))

    def owner_changed(owner):
        if not owner:
            release(cookie)

    leaving[cookie] = bus.watch_name_owner(sender, owner_changed)
    return dbus.UInt32(cookie)


take.count = 0


delayed = None  # what to say, and to whom, as soon as answers are given again


def answer(reply, cookie):
    if delayed is None:
        reply(cookie)
    else:
        delayed.append((reply, cookie))


def release(cookie):
    entry = held.pop(int(cookie), None)
    if entry and entry[3]:
        entry[3].remove_from_connection()


def asked_to_inhibit(interface, signature):
    """A method that may answer later."""
    return dbus.service.method(
        interface,
        in_signature=signature,
        out_signature="u",
        sender_keyword="sender",
        async_callbacks=("reply", "refuse"),
    )


class Mock(dbus.service.Object):
    @dbus.service.method("org.vimbrel.Mock", out_signature="as")
    def Held(self):
        return dbus.Array([entry[1] for entry in held.values()], signature="s")

    @dbus.service.method("org.vimbrel.Mock")
    def Delay(self):
        global delayed
        delayed = []

    @dbus.service.method("org.vimbrel.Mock")
    def Answer(self):
        global delayed
        late, delayed = delayed, None
        for reply, cookie in late:
            reply(cookie)


class GnomeInhibitor(dbus.service.Object):
    INTERFACE = "org.gnome.SessionManager.Inhibitor"

    def __init__(self, cookie, application, flags):
        super().__init__(bus, "/org/gnome/SessionManager/Inhibitor%d" % cookie)
        self.application, self.flags = application, flags

    @dbus.service.method(INTERFACE, out_signature="s")
    def GetAppId(self):
        return self.application

    @dbus.service.method(INTERFACE, out_signature="u")
    def GetFlags(self):
        return dbus.UInt32(self.flags)


class GnomeSession(dbus.service.Object):
    NAME = "org.gnome.SessionManager"

    @asked_to_inhibit(NAME, "susu")
    def Inhibit(self, application, window, reason, flags, sender, reply, refuse):
        answer(reply, take(sender, application, reason, flags, GnomeInhibitor))

    @dbus.service.method(NAME, in_signature="u")
    def Uninhibit(self, cookie):
        release(cookie)

    @dbus.service.method(NAME, out_signature="ao")
    def GetInhibitors(self):
        return dbus.Array(["/org/gnome/SessionManager/Inhibitor%d" % c for c in held], signature="o")


class PowerManagement(dbus.service.Object):
    NAME = "org.freedesktop.PowerManagement.Inhibit"

    @asked_to_inhibit(NAME, "ss")
    def Inhibit(self, application, reason, sender, reply, refuse):
        answer(reply, take(sender, application, reason))

    @dbus.service.method(NAME, in_signature="u")
    def UnInhibit(self, cookie):
        release(cookie)

    @dbus.service.method(NAME, out_signature="b")
    def HasInhibit(self):
        return bool(held)


class ScreenSaver(dbus.service.Object):
    NAME = "org.freedesktop.ScreenSaver"
    first = 1

    @asked_to_inhibit(NAME, "ss")
    def Inhibit(self, application, reason, sender, reply, refuse):
        answer(reply, take(sender, application, reason, first=self.first))

    @dbus.service.method(NAME, in_signature="u")
    def UnInhibit(self, cookie):
        release(cookie)


class PortalSession(dbus.service.Object):
    @dbus.service.method("org.freedesktop.impl.portal.Session")
    def Close(self):
        self.remove_from_connection()


class PortalDesktop(dbus.service.Object):
    NAME = "org.freedesktop.impl.portal.GlobalShortcuts"
    bound = None
    answer = 0

    @dbus.service.method("org.freedesktop.DBus.Properties", in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return dbus.UInt32(1)

    @dbus.service.method("org.freedesktop.DBus.Properties", in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return dbus.Dictionary({"version": dbus.UInt32(1)}, signature="sv")

    @dbus.service.method(NAME, in_signature="oosa{sv}", out_signature="ua{sv}")
    def CreateSession(self, handle, session, application, options):
        PortalSession(bus, session)
        return dbus.UInt32(0), dbus.Dictionary({}, signature="sv")

    @dbus.service.method(NAME, in_signature="ooa(sa{sv})sa{sv}", out_signature="ua{sv}")
    def BindShortcuts(self, handle, session, shortcuts, window, options):
        if PortalDesktop.answer:
            return dbus.UInt32(PortalDesktop.answer), dbus.Dictionary({}, signature="sv")
        PortalDesktop.bound = (session, shortcuts[0][0], str(shortcuts[0][1]["preferred_trigger"]))
        granted = dbus.Array([(shortcuts[0][0], shortcuts[0][1])], signature="(sa{sv})")
        return dbus.UInt32(0), dbus.Dictionary({"shortcuts": granted}, signature="sv")

    @dbus.service.signal(NAME, signature="osta{sv}")
    def Activated(self, session, shortcut, time, options):
        pass


class PortalMock(Mock):
    @dbus.service.method("org.vimbrel.Mock", out_signature="s")
    def Press(self):
        if PortalDesktop.bound is None:
            return ""
        session, shortcut, trigger = PortalDesktop.bound
        service.Activated(session, shortcut, dbus.UInt64(1), dbus.Dictionary({}, signature="sv"))
        return trigger

    @dbus.service.method("org.vimbrel.Mock")
    def Decline(self):
        PortalDesktop.answer = 1


part = sys.argv[1]
services = {
    "portal-desktop": (
        "org.freedesktop.impl.portal.desktop.mock",
        PortalDesktop,
        "/org/freedesktop/portal/desktop",
    ),
    "gnome-session": ("org.gnome.SessionManager", GnomeSession, "/org/gnome/SessionManager"),
    "power-management": (
        "org.freedesktop.PowerManagement",
        PowerManagement,
        "/org/freedesktop/PowerManagement/Inhibit",
    ),
    "screensaver": ("org.freedesktop.ScreenSaver", ScreenSaver, "/org/freedesktop/ScreenSaver"),
    "screensaver-bare": ("org.freedesktop.ScreenSaver", ScreenSaver, "/ScreenSaver"),
}
name, kind, path = services[part]
if part == "screensaver-bare":
    ScreenSaver.first = 0
if part == "portal-desktop":
    # What was bound ends with the portal's process.
    bus.watch_name_owner("org.freedesktop.portal.Desktop", lambda owner: owner or setattr(kind, "bound", None))
service, mock = kind(bus, path), (PortalMock if part == "portal-desktop" else Mock)(bus, "/mock")
owned = dbus.service.BusName(name, bus, do_not_queue=True)
GLib.MainLoop().run()
