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
INHIBITOR = ("ret = args[1] == 'dravel-manager' and args[3] == 'delay' and "
             "dbus.types.UnixFd(open('/tmp/inhibitor', 'w'))")
JOB = "ret = dbus.ObjectPath('/org/freedesktop/systemd1/job/7')"
NO_JOBS = "ret = dbus.Array([], signature='(usssoo)')"
SESSION = "/org/freedesktop/login1/session/_31"
SESSIONS = f"ret = [('1', dbus.UInt32(1000), 'viewer', 'seat0', dbus.ObjectPath('{SESSION}'))]"
# Properties that nobody wants come first.
LOGIND = {"Docked": False, "PreparingForSleep": False, "PreparingForShutdown": False,
          "BlockInhibited": "", "InhibitDelayMaxUSec": dbus.UInt64(5000000)}
SLEEPS = [(name + "WithFlags", "t", "", "") for name in ("Suspend", "PowerOff", "Hibernate")]
ABILITIES = [("Can" + name, "", "s", "ret = 'yes'") for name in ("Suspend", "PowerOff", "Hibernate")]
UNITS = [(name, "ss", "o", JOB) for name in ("RestartUnit", "StopUnit")]
SERVICES = [
    ("login1", ".Manager", LOGIND,
     [("Inhibit", "ssss", "h", INHIBITOR), ("ListSessions", "", "a(susso)", SESSIONS)]
     + SLEEPS + ABILITIES),
    ("timedate1", "", {"Timezone": "UTC", "NTP": False, "NTPSynchronized": False}, []),
    ("systemd1", ".Manager", {},
     [("Subscribe", "", "", ""), ("ListJobs", "", "a(usssoo)", NO_JOBS)] + UNITS),
]

bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
simulated = []
for name, interface, properties, methods in SERVICES:
    owned = dbus.service.BusName("org.freedesktop." + name, bus)
    interface = "org.freedesktop." + name + interface
    path = "/org/freedesktop/" + name
    simulated.append(mockobject.DBusMockObject(owned, path, interface, properties, "/dev/null"))
    simulated[-1].AddMethods(interface, methods)
    if name == "login1":
        simulated[-1].AddObject(SESSION, "org.freedesktop.login1.Session",
                                {"Remote": False, "Class": "user", "IdleHint": True,
                                 "TimestampMonotonic": dbus.UInt64(1000000),
                                 "IdleSinceHintMonotonic": dbus.UInt64(2000000)}, [])
loop = GLib.MainLoop()
GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
loop.run()
