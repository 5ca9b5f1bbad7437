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

# A file whose name tells who holds it.
INHIBITOR = "ret = dbus.types.UnixFd(open('/tmp/inhibitor', 'w'))"
JOB = "ret = dbus.ObjectPath('/org/freedesktop/systemd1/job/1')"
SLEEPS = [(name, "b", "", "") for name in ("Suspend", "PowerOff", "Hibernate")]
UNITS = [(name, "ss", "o", JOB) for name in ("RestartUnit", "StopUnit")]
SERVICES = [
    ("login1", ".Manager", {"BlockInhibited": "", "IdleHint": False, "IdleSinceHint": dbus.UInt64(0)},
     [("Inhibit", "ssss", "h", INHIBITOR)] + SLEEPS),
    ("timedate1", "", {"NTP": False, "NTPSynchronized": False, "Timezone": "UTC"}, []),
    ("systemd1", ".Manager", {}, [("Subscribe", "", "", "")] + UNITS),
]

bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
simulated = []
for name, interface, properties, methods in SERVICES:
    owned = dbus.service.BusName("org.freedesktop." + name, bus)
    interface = "org.freedesktop." + name + interface
    path = "/org/freedesktop/" + name
    simulated.append(mockobject.DBusMockObject(owned, path, interface, properties, "/dev/null"))
    simulated[-1].AddMethods(interface, methods)
loop = GLib.MainLoop()
GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
loop.run()
