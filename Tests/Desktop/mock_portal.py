#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The settings of a desktop portal, as the real one gives them: org.freedesktop.portal.Settings. Set(namespace, key,
number) at /mock on org.vimbrel.Mock changes one and announces it.

usage: mock_portal.py NAMESPACE/KEY=NUMBER…
"""
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

SETTINGS = "org.freedesktop.portal.Settings"
DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
values = {}


def typed(key, number):
    return dbus.Boolean(number) if key == "enable-animations" else dbus.UInt32(number)


class Portal(dbus.service.Object):
    @dbus.service.method(SETTINGS, in_signature="ss", out_signature="v")
    def Read(self, namespace, key):
        if (namespace, key) not in values:
            raise dbus.exceptions.DBusException("Requested setting not found",
                                                name="org.freedesktop.portal.Error.NotFound")
        # The old Read wraps twice.
        value = values[namespace, key]
        return type(value)(value, variant_level=1)

    @dbus.service.signal(SETTINGS, signature="ssv")
    def SettingChanged(self, namespace, key, value):
        pass


class Mock(dbus.service.Object):
    @dbus.service.method("org.vimbrel.Mock", in_signature="ssu")
    def Set(self, namespace, key, number):
        values[str(namespace), str(key)] = typed(key, number)
        portal.SettingChanged(namespace, key, values[str(namespace), str(key)])


for setting in sys.argv[1:]:
    path, number = setting.split("=")
    values[tuple(path.split("/"))] = typed(path.split("/")[1], int(number))
portal, mock = Portal(bus, "/org/freedesktop/portal/desktop"), Mock(bus, "/mock")
owned = dbus.service.BusName("org.freedesktop.portal.Desktop", bus, do_not_queue=True)
GLib.MainLoop().run()
