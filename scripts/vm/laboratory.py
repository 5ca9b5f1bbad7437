"""Where cases run: the machine's disk, its snapshot with the package installed, the table."""
import datetime
import hashlib
import pathlib
import re
import subprocess

from guest import Guest

ON_SECOND = 1.5  # seconds late that an expiry may be heard: the daemon counts whole seconds
EARLY = 1.0  # seconds early that the alarm may be: the real-time clock counts whole seconds, too


def next_monday():
    """A working day well after the build, so that the guest's clock counts as set."""
    today = datetime.date.today()
    return today + datetime.timedelta(days=14 - today.weekday())


class Laboratory:
    def __init__(self, package, directory, root, quiet, rounds=None):
        self.package, self.directory, self.root, self.quiet = package, directory, root, quiet
        self.rounds = rounds  # None: as many as each case has
        self.disk = directory / "work.qcow2"
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

    # --- machines ---

    def fresh_disk(self):
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "qcow2", "-b",
                        "disk.qcow2", str(self.disk)], cwd=self.directory, check=True)

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

    def close(self):
        for machine in self.machines:
            machine.kill()
        self.machines.clear()

    def readme_lines(self):
        """The commands that the README gives for one's own machine."""
        text = (self.root / "README.md").read_text()
        section = text.split("## On your own machine", 1)[1].split("\n## ", 1)[0]
        return re.findall(r"^    (.*?)(?: +#.*)?$", section, re.MULTILINE)

    def key(self):
        """Changes with all that the kept machine depends on."""
        parts = [self.package, self.directory / "disk.key", self.root / "README.md",
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
