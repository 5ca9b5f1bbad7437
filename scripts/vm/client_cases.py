"""The case of the clients' packages: the bridge to an MQTT broker, and the page of Cockpit."""
import json
import re
import tarfile

from guest import LEAD
from laboratory import WAKE_LATE

BROKER_LATE = 3  # seconds: an expiry, and its way through the broker to a program
TOPIC = "dravel/machine"
COMMAND = {"id": "vm", "timer": {"type": 0, "time": "07:00",
                                 "days": ["Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"]}}


def put_packages(lab, guest):
    """Puts those that lie beside the daemon's where the README expects them."""
    archive = lab.directory / "clients.tar"
    with tarfile.open(archive, "w") as tar:
        for package in lab.package.parent.glob("dravel-manager-*.deb"):
            tar.add(package, package.name)
    guest.plug(archive)
    guest.run("tar -C build -xf /dev/vdc")


def clients(lab):
    guest = lab.guest()
    put_packages(lab, guest)
    guest.television_off()
    guest.run("apt install ./build/dravel-manager-*.deb mosquitto mosquitto-clients", 300)
    guest.set_clock("06:58:00")
    guest.run("sed -i 's/^#host=/host=/' /etc/dravel-mqtt.conf && systemctl enable --now dravel-mqtt")
    guest.run("systemd-run --unit=observer -p SyslogIdentifier=observer "
              f"mosquitto_sub -v -t '{TOPIC}/#'")

    def published(what, count=1):
        """When a program at the broker has heard it."""
        return guest.await_journal(f"observer.*{TOPIC}/{what}", 30, count)[0]

    published("availability online")
    lab.row("the bridge is connected", "online", True)
    guest.run(f"mosquitto_pub -t {TOPIC}/set/add -m '{json.dumps(COMMAND)}'")
    published('result .*"vm"')
    timers = guest.timers()
    lab.row("a timer comes by the broker", f"{len(timers)} timers", len(timers) == 1)
    due = guest.seconds("07:00")
    guest.suspend()
    woken = guest.await_wake_up(30)
    lab.on_time("its alarm wakes the machine", woken, due - LEAD, WAKE_LATE)
    told = published("availability asleep")
    lab.row("the broker was told before it slept", guest.text(told), told < woken - WAKE_LATE)
    lab.on_time("and hears when it has fired", published('event .*"fired"'), due, BROKER_LATE)
    published("availability online", 2)
    shown = guest.run("runuser -u viewer -- cockpit-bridge --packages")
    page = re.search(r"^dravel\b.*", shown, re.MULTILINE)
    lab.row("an ordinary user's Cockpit has the page", " ".join(page[0].split()) if page else shown,
            page)
    overview = json.loads(guest.run("runuser -u viewer -- dravelctl overview"))
    lab.row("and what it shows", f"{len(overview['timers'])} timers",
            len(overview["timers"]) == len(timers))
    guest.run("systemctl stop dravel-mqtt observer && dravel-mqtt --forget")
    guest.run("apt purge dravel-manager-mqtt dravel-manager-cockpit", 120)
    guest.run("mosquitto_pub -r -t proof -m read") # an empty answer would not tell that it was one
    kept = guest.run(f"mosquitto_sub -v -t '{TOPIC}/#' -t proof -W 3 2>/dev/null", check=False)
    lab.row("forgotten and purged: the broker keeps nothing else", kept, kept == "proof read")
    left = guest.run("ls -d /var/lib/dravel-mqtt /etc/dravel-mqtt* /usr/share/cockpit/dravel "
                     "2>/dev/null", check=False)
    lab.row("no file is left", left or "none", not left)
    state = guest.run("systemctl is-active dravel-manager", check=False)
    lab.row("and the daemon runs on with its timer", f"{state}, {len(guest.timers())} listed",
            state == "active" and guest.timers().keys() == timers.keys())


CASES = (clients,)
