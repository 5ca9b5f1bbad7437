"""What a user, a television remote and a clock do to the machine, and what is seen of it."""
import json
import re
import shlex
import time

from machine import PATIENCE, Machine, Trouble

LEAD = 15  # seconds, the default of lead-suspend
RTC = "/sys/class/rtc/rtc0"
NAME = "org.olvara.tv.system.dravel"
MACHINE = f"{NAME} /org/olvara/tv/system/dravel/machine {NAME}.machine"
JOURNAL = "journalctl -q -o short-unix --no-hostname"


class Guest(Machine):
    """The machine with the package. Its calendar shows `day`; `transcript` gets what happens."""

    def __init__(self, *arguments, day, transcript, **keywords):
        super().__init__(*arguments, **keywords)
        self.day = day
        self.transcript = transcript
        self.cursor = None  # where reading of the journal begins
        self.wake_ups = 0  # since then

    # --- the user ---

    def type(self, command):
        """Runs a command that belongs into the transcript."""
        output = self.run(command)
        self.note(f"# {command}", *output.splitlines())
        return output

    def note(self, *lines):
        self.transcript.extend(lines)

    def add(self, options):
        """Adds a timer; returns its id."""
        return int(re.match(r"Timer (-?\d+) is added", self.type(f"dravelctl add {options}"))[1])

    def timers(self):
        """What the list says, by id."""
        return {timer["id"]: timer for timer in json.loads(self.run("dravelctl list --json"))}

    def suspend(self, early=4):
        """The user sends the machine to sleep, which then lasts until `early` seconds before the
        alarm; None: as long as it lasts."""
        self.note("# systemctl suspend")
        self.cast("systemctl suspend")
        self.await_sleep(20, early)

    def wake(self):
        """The user wakes it, and presses another key: the first one is not seen."""
        self.qmp("system_wakeup")
        woken = self.await_wake_up(20)
        self.human("sendkey a")
        return woken

    def await_sleep(self, timeout, early=None):
        self.await_event("SUSPEND", timeout)
        self.note("(the machine sleeps)")
        if early is not None:
            self.skip_sleep(early)

    def await_wake_up(self, timeout):
        """Returns the guest's time of the wake-up."""
        self.await_event("WAKEUP", timeout)
        self.await_shell_again()
        self.wake_ups += 1
        woken, _ = self.await_journal("System returned from sleep", 20, self.wake_ups)
        self.note(f"(awake at {self.text(woken)})")
        return woken

    def shows(self, name):
        """A property of the machine object, as busctl prints it: s "on"."""
        return self.run(f"busctl get-property {MACHINE} {name}")

    def await_shown(self, name, pattern, timeout=20):
        """Waits until the property matches; returns what it shows in the end."""
        deadline = time.monotonic() + timeout * PATIENCE
        while not re.search(pattern, shown := self.shows(name)) and time.monotonic() < deadline:
            time.sleep(0.5)
        return shown

    def memory(self):
        """What the daemon uses, in kB."""
        lines = self.run("cat /proc/$(pidof dravel-manager)/{status,smaps_rollup}")
        return {name: int(count)
                for name, count in re.findall(r"^(VmRSS|VmData|Pss):\s+(\d+) kB", lines, re.M)}

    def switches(self):
        """How often the daemon has been given the processor."""
        lines = self.run("cat /proc/$(pidof dravel-manager)/task/*/status")
        return sum(int(count) for count in re.findall(r"voluntary_ctxt_switches:\s+(\d+)", lines))

    # --- what is prepared ---

    def put_package(self):
        """Puts the package where the README expects it."""
        self.run(f"mkdir -p build && head -c {self.payload.stat().st_size} /dev/vdb "
                 f">build/{self.payload.name}")

    def configure(self, *lines):
        text = shlex.quote("\n".join(["[linux]", *lines]))
        self.run(f"echo {text} >/etc/dravel-manager.conf && systemctl reload dravel-manager")

    def plug(self, path):
        """Gives the machine a third disk, /dev/vdc."""
        self.qmp("blockdev-add", driver="raw", **{"node-name": "third"},
                 file={"driver": "file", "filename": str(path)})
        self.qmp("device_add", driver="virtio-blk-pci", drive="third")
        self.run("timeout 10 sh -c 'until [ -b /dev/vdc ]; do sleep 0.1; done'")

    def plug_store(self, path):
        """Puts the daemon's store on a disk of its own."""
        self.plug(path)
        self.run("mount /dev/vdc /opt/dbspace")

    # --- clocks ---

    def seconds(self, time):
        """ "07:00" or "07:00:00" of the day, in the guest's zone, as seconds since 1970."""
        return int(self.run(f"date -d '{self.day} {time}' +%s"))

    def now(self):
        return float(self.run("date +%s.%N"))

    def set_clock(self, time):
        """Moves both clocks of the machine, and forgets what the journal holds."""
        # The daemon, which the step wakes, has the real-time clock open for a moment.
        self.run(f"date -s '{self.day} {time}' && (hwclock --systohc || hwclock --systohc)")
        self.note(f"# date -s '{self.day} {time}'")
        self.mark()

    def set_wall_clock(self, time):
        self.run(f"date -s '{self.day} {time}'")
        self.mark()

    def rtc_now(self):
        """What the real-time clock shows, counted as if it were UTC."""
        return int(self.run(f"cat {RTC}/since_epoch"))

    def alarm(self):
        """When the alarm goes off, counted as the real-time clock does; 0: never."""
        return int(self.run(f"cat {RTC}/wakealarm") or 0)

    def set_foreign_alarm(self, count):
        """Another program's, which has to switch off what stands."""
        self.run(f"echo 0 >{RTC}/wakealarm; echo {count} >{RTC}/wakealarm")

    def clock_time(self, seconds):
        return self.run(f"date -d @{seconds} +%T")

    def text(self, seconds):
        return self.run(f"date -d @{seconds:.2f} +%T.%2N")

    # --- the journal ---

    def mark(self):
        """From here on the journal is read."""
        self.run("journalctl --sync")
        self.wake_ups = 0
        self.cursor = self.run(f"{JOURNAL} -n 1 --show-cursor").split("-- cursor: ")[1]

    def read_command(self):
        return f"{JOURNAL} -n all --after-cursor={shlex.quote(self.cursor)}"

    def journal(self, pattern):
        """The lines since the mark that match, as (seconds, text)."""
        return self.lines_of(self.read_command(), pattern)

    def lines_of(self, command, pattern=""):
        self.run("journalctl --sync")
        lines = self.run(command, 120).splitlines()
        return [(float(time), text) for time, text in (line.split(" ", 1) for line in lines)
                if re.search(pattern, text)]

    def all_expiries(self):
        """(seconds, id) of each, in the daemon's words, since the package was installed."""
        lines = self.lines_of(f"{JOURNAL} -t DRAVEL_MANAGER -g 'dravel expired'")
        return [(time, int(re.search(r"\[(\d+)\]$", text)[1])) for time, text in lines]

    def await_journal(self, pattern, timeout, count=1):
        """The line since the mark that matches as the `count`-th."""
        lines = self.run(f"timeout {timeout * PATIENCE} grep -m {count} -P {shlex.quote(pattern)} "
                         f"< <({self.read_command()} -f)", timeout + 20, check=False).splitlines()
        if len(lines) < count:
            raise Trouble(f"the journal has no {pattern!r} within {timeout} s")
        time, text = lines[-1].split(" ", 1)
        return float(time), text

    def await_expiry(self, timer, timeout):
        """Returns when the timer has expired."""
        time, text = self.await_journal(rf"listener.*timer {timer} expired", timeout)
        self.note(f"(dravelctl monitor: {text.split(': ', 1)[1]})")
        return time

    # --- the television ---

    def television_off(self):
        """The television is turned off by its remote and reports nothing on the cable."""
        self.run("echo OPTIONS=--standby >/etc/default/television && systemctl restart television")
        self.await_journal("television.*CEC adapter state change", 20)
        self.note("(television: standby)")
        self.mark()

    def await_television(self, state, timeout=10):
        """Waits until the television is told "on" or "standby"; returns when."""
        time, _ = self.await_journal(f"television.*Changing state to {state}", timeout)
        self.note(f"(television: {state} at {self.text(time)})")
        return time

    def television_was_told(self):
        return [text.split(">>> ", 1)[1] for _, text in self.journal("television.*>>> (Ch|New)")]
