#!/usr/bin/python3
"""Simulates logind, timedated and systemd on the system bus, which get their names in this order.

Each answers what the platform asks. Calls appear as dbusmock's signal MethodCalled; its methods
EmitSignal, UpdateProperties and AddMethod change what happens. SIGTERM ends it.
"""

import signal

import dbus
import dbus.mainloop.glib
from dbusmock import mockobject
from gi.repository import GLib

SERVICES = {
    "login1": (
        "org.freedesktop.login1.Manager",
        {"BlockInhibited": "", "IdleHint": False, "IdleSinceHint": dbus.UInt64(0)},
        [
            # A file whose name tells who holds it.
            ("Inhibit", "ssss", "h", "ret = dbus.types.UnixFd(open('/tmp/inhibitor', 'w'))"),
            ("Suspend", "b", "", ""),
            ("PowerOff", "b", "", ""),
            ("Hibernate", "b", "", ""),
        ],
    ),
    "timedate1": (
        "org.freedesktop.timedate1",
        {"NTP": False, "NTPSynchronized": False, "Timezone": "UTC"},
        [],
    ),
    "systemd1": (
        "org.freedesktop.systemd1.Manager",
        {},
        [
            ("Subscribe", "", "", ""),
            ("RestartUnit", "ss", "o", "ret = dbus.ObjectPath('/org/freedesktop/systemd1/job/1')"),
            ("StopUnit", "ss", "o", "ret = dbus.ObjectPath('/org/freedesktop/systemd1/job/2')"),
        ],
    ),
}

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SystemBus()
simulated = []
for name, (interface, properties, methods) in SERVICES.items():
    bus_name = dbus.service.BusName("org.freedesktop." + name, bus)
    simulated.append(mockobject.DBusMockObject(bus_name, "/org/freedesktop/" + name, interface, properties, "/dev/null"))
    simulated[-1].AddMethods(interface, methods)
loop = GLib.MainLoop()
GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
loop.run()
