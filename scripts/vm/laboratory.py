"""Where cases run: the machine's disk, its snapshot with the package installed, the table."""
import datetime
import hashlib
import pathlib
import re
import subprocess

from guest import Guest

ON_SECOND = 1.5  # seconds late that an expiry may be heard: the daemon counts whole seconds
WAKE_LATE = 3  # seconds from the alarm to the first program that runs
TELEVISION_LATE = 2.5  # seconds: an expiry and two messages on the cable
HOOK_LATE = 5  # seconds: systemd starts a unit
EARLY = 1.0  # seconds early that the alarm may be: the real-time clock counts whole seconds, too


def next_monday():
    """A working day well after the build, so that the guest's clock counts as set."""
    today = datetime.date.today()
    return today + datetime.timedelta(days=14 - today.weekday())


class Laboratory:
    """`image` is the directory of what all machines begin with, `number` names the one of this."""

    def __init__(self, package, image, root, number, quiet, rounds=None):
        self.package, self.image, self.root, self.quiet = package, image, root, quiet
        self.number, self.directory = number, image / str(number)
        self.directory.mkdir(exist_ok=True)
        self.rounds = rounds  # None: as many as each case has
        self.disk = self.directory / "work.qcow2"
        self.day = str(next_monday())
        self.transcript = []
        self.machines = []
        self.case, self.rows, self.failures = "", 0, 0

    # --- the table ---

    def row(self, asked, seen, passed, late=None):
        self.rows += 1
        self.failures += not passed
        if self.quiet and passed:
            return
        self.print_row(self.case, asked, seen, "" if late is None else f"{late:.2f} s",
                       "ok" if passed else "FAILED")

    @staticmethod
    def tell(text):
        """Says more about a failure than its row does."""
        print(f"          {text}", flush=True)

    @staticmethod
    def print_row(case, asked, seen, late, result):
        print(f"{case:<9} {asked:<64} {seen:<44} {late:>7}  {result}".rstrip(), flush=True)

    def on_time(self, asked, seen, due, limit=ON_SECOND):
        """A row for what was seen at `seen` and was due at `due`, both seconds since 1970."""
        late = seen - due
        seen = datetime.datetime.fromtimestamp(seen, datetime.timezone.utc)
        self.row(asked, f"{seen:%H:%M:%S} UTC", -EARLY <= late <= limit, late)

    def credited(self, timer, shown):
        """A row for what `dravelctl wakeup` has shown."""
        self.row("the timer is credited", shown.splitlines()[0].strip(),
                 re.search(rf"Timer: +{timer}\b", shown))

    def not_credited(self, asked, shown):
        self.row(asked, shown, shown == "No timer woke the set.")

    def television_stayed_off(self, guest, asked):
        told = guest.television_was_told()
        self.row(asked, ", ".join(told) or "told nothing",
                 not any("to on" in line for line in told))

    def sleeps_again(self, guest):
        """Woken for something that leaves the television off."""
        guest.await_sleep(40)
        self.row("the machine sleeps again", "asleep", True)
        guest.wake()
        self.television_stayed_off(guest, "and the television stayed off")

    # --- machines ---

    def fresh_disk(self):
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "qcow2", "-b",
                        str(self.image / "disk.qcow2"), str(self.disk)], check=True)

    def guest(self, **keywords):
        """Starts the machine; with no `rtc` as it was when the package had just been installed."""
        if "rtc" not in keywords:
            self.make_ready()
            keywords.setdefault("snapshot", "ready")
        guest = Guest(self.directory, self.disk, self.package, day=self.day,
                      transcript=self.transcript, **keywords)
        self.machines.append(guest)
        if "rtc" in keywords:
            guest.await_shell()
        guest.mark()
        return guest

    def reboot(self, guest, rtc, is_off=False):
        """Powers the machine off and boots it when its clock shows `rtc`."""
        if not is_off:
            guest.cast("systemctl poweroff")
        guest.await_end(60)
        guest = self.guest(rtc=rtc)
        guest.run("systemd-run --unit=listener -p SyslogIdentifier=listener dravelctl monitor")
        return guest

    def close(self):
        for machine in self.machines:
            machine.kill()
        self.machines.clear()

    def readme_lines(self):
        """The commands that the README gives for one's own machine, up to the list."""
        text = (self.root / "README.md").read_text()
        section = text.split("## On your own machine", 1)[1].split("\n## ", 1)[0]
        lines = re.findall(r"^    (.*?)(?: +#.*)?$", section, re.MULTILINE)
        return lines[:lines.index("dravelctl list") + 1]

    def key(self):
        """Changes with all that the kept machine depends on."""
        parts = [self.package, self.image / "disk.key", self.root / "README.md",
                 pathlib.Path(__file__)]
        return hashlib.sha256(b"".join(part.read_bytes() for part in parts)).hexdigest() + self.day

    def make_ready(self):
        """Installs the package, unless the machine of an earlier run has the same one."""
        kept = self.directory / "ready.key"
        if not kept.exists() or kept.read_text() != self.key():
            guest, _ = self.install()
            self.keep(guest)
            self.close()

    def install(self):
        """Boots and does what the README says."""
        (self.directory / "ready.key").unlink(missing_ok=True)
        self.fresh_disk()
        guest = self.guest(rtc=f"{self.day}T05:50:00")
        guest.put_package()
        guest.run("systemctl start television")
        listed = ""
        for line in self.readme_lines()[1:]:
            listed = guest.run(line, 300)
        return guest, listed

    def keep(self, guest):
        """Every case begins here: no timers, a television, a listener, a short return to sleep."""
        for timer in guest.timers():
            guest.run(f"dravelctl cancel {timer}")
        guest.run("systemd-run --unit=listener -p SyslogIdentifier=listener dravelctl monitor")
        guest.configure("return-to-sleep = 8")
        guest.mark()
        guest.human("savevm ready")
        (self.directory / "ready.key").write_text(self.key())
