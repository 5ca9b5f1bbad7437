"""The cases, in the order in which they run."""
import collections
import random
import re
import shlex
import statistics
import subprocess
import time

from guest import LEAD
from laboratory import ON_SECOND
from machine import Trouble

KILLS = 20  # of the daemon and of the machine, unless told otherwise
NIGHT = 200  # rounds, unless told otherwise
SEED = 3  # of a night
WAKE_UPS = 10  # that are timed, unless told otherwise
IDLE = 300  # seconds
MAY_WAKE = 10  # context switches in that time
RESIDENT = 12000  # kB
# kB that the daemon may grow by after the tenth round. glibc takes memory in steps of 132 kB; a
# page of a library counts once it is used. 256 kB in 190 rounds are 1.3 kB a round.
GROWTH = 256
TELEVISION_LATE = 2.5  # seconds: an expiry and two messages on the cable
EXPIRY_LATE = 3  # seconds: an expiry is announced on a busy machine
HOOK_LATE = 5  # seconds: systemd starts a unit
WAKE_LATE = 3  # seconds from the alarm to the first program that runs


def install(lab):
    guest, listed = lab.install()
    lab.row("the README's lines", f"{len(listed.splitlines()) - 1} timers are listed",
            re.search(r"07:00:00.*weekdays", listed) and re.search(r"22:00:00.*daily", listed))
    state = guest.run("systemctl is-active dravel-manager", check=False)
    lab.row("the daemon runs", state, state == "active")
    viewer = guest.run("runuser -u viewer -- dravelctl list")
    lab.row("an ordinary user lists the timers", f"{len(viewer.splitlines()) - 1} timers",
            viewer == listed)
    errors = guest.run("journalctl -q -b -p err -u dravel-manager -o cat")
    lab.row("the journal has no error of ours", errors or "none", not errors)
    exposure = guest.run("systemd-analyze security dravel-manager --no-pager | tail -n 1")
    level = float(re.search(r": ([\d.]+)", exposure)[1])
    lab.row("the unit is hardened: exposure below 3", f"{level}", level < 3)
    lab.keep(guest)


def suspend(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:32")
    timer, due = guest.add("--at 07:00 --on weekdays"), guest.seconds("07:00")
    guest.suspend()
    lab.on_time(f"suspended by its user; the alarm wakes it {LEAD} s early",
                guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("the on-timer fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)
    _, source = guest.await_journal("New active source", 10)
    lab.row("and shows us", source.split(">>> ")[1].lower(), "1.0.0.0" in source)
    state = guest.run("systemctl is-active dravel-on.target", check=False)
    lab.row("dravel-on.target", state, state == "active")
    shown = guest.type("dravelctl wakeup")
    credited(lab, timer, shown)


def credited(lab, timer, shown):
    """A row for what `dravelctl wakeup` has shown."""
    lab.row("the timer is credited", shown.splitlines()[0].strip(),
            re.search(rf"Timer: +{timer}\b", shown))


def not_credited(lab, asked, shown):
    lab.row(asked, shown, shown == "No timer woke the set.")


def off(lab):
    guest = lab.guest()
    guest.set_clock("06:58:52")
    off_timer = guest.add("--at 06:59 --type off --on daily")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    lab.on_time("an off-timer fires", guest.await_expiry(off_timer, 30), guest.seconds("06:59"))
    lab.on_time("the television goes to standby", guest.await_television("standby"),
                guest.seconds("06:59"), TELEVISION_LATE)
    guest.await_sleep(40)
    lab.row("the machine sleeps by itself", "asleep", True)
    lab.on_time("woken for the next on-timer", guest.await_wake_up(60), due - LEAD, WAKE_LATE)
    lab.on_time("which fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)


def sleeps_again(lab, guest):
    """Woken for something that leaves the television off."""
    guest.await_sleep(40)
    lab.row("the machine sleeps again", "asleep", True)
    guest.qmp("system_wakeup")
    guest.await_wake_up(20)
    told = guest.television_was_told()
    lab.row("and the television stayed off", ", ".join(told) or "told nothing",
            not any("to on" in line for line in told))


def wakeup(lab):
    guest = lab.guest()
    guest.run("systemctl enable hook.service")
    guest.television_off()
    guest.set_clock("06:59:32")
    timer, due = guest.add("--at 07:00 --type wake-20"), guest.seconds("07:00")
    guest.suspend()
    lab.on_time("a timer of another type: woken", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("it fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the unit hooked to dravel-wakeup@20.target runs",
                guest.await_journal("hook.*the hook has run", 10)[0], due, HOOK_LATE)
    sleeps_again(lab, guest)


def early(lab):
    guest = lab.guest()
    guest.set_clock("06:59:20")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    guest.suspend()
    guest.qmp("system_wakeup")
    woken = guest.await_wake_up(20)
    lab.row("woken by its user", f"{due - woken:.0f} s before the on-time", woken < due - LEAD)
    shown = guest.type("dravelctl wakeup")
    not_credited(lab, "no timer is credited", shown)
    lab.on_time("the on-timer still fires", guest.await_expiry(timer, 60), due)
    shown = guest.run("dravelctl wakeup")
    not_credited(lab, "no timer is credited", shown)


def halted(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:32")
    guest.type("dravelctl halt on")
    timer, due = guest.add("--at 07:00 --on daily"), guest.seconds("07:00")
    guest.suspend()
    lab.on_time("on-timers are halted: woken", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("the timer is announced", guest.await_expiry(timer, 30), due)
    sleeps_again(lab, guest)


def skipped(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:35")
    holiday = guest.run(f"date -d {lab.day} +%m-%d")
    guest.type(f"dravelctl holidays add {holiday}")
    guest.add("--at 07:00 --on daily --holidays skip")
    guest.type(f"dravelctl cancel {guest.add('--at 07:00')}")
    timer, due = guest.add("--at 07:01"), guest.seconds("07:01")
    guest.suspend()
    lab.on_time("a holiday, a cancelled timer: woken for the next one only",
                guest.await_wake_up(90), due - LEAD, WAKE_LATE)
    lab.on_time("which fires on its second", guest.await_expiry(timer, 30), due)
    expired = len(guest.journal("listener.*expired"))
    lab.row("and no other does", f"{expired} expired", expired == 1)


def clocks(lab):
    guest = lab.guest()
    guest.set_clock("06:55:00")
    guest.add("--at 09:00 --on daily")

    def alarm_follows(asked):
        wanted = guest.seconds("09:00") - LEAD - guest.now()
        deadline = time.monotonic() + 10
        while True:
            off_by = guest.alarm() - guest.rtc_now() - wanted
            if abs(off_by) < 2 or time.monotonic() > deadline:
                break
            time.sleep(0.2)
        lab.row(asked, f"the alarm is {wanted:.0f} s ahead, off by {abs(off_by):.0f} s",
                abs(off_by) < 2)

    alarm_follows("an on-timer at 09:00")
    guest.run("timedatectl set-timezone America/New_York")
    alarm_follows("the zone changes to New York")
    guest.run("timedatectl set-timezone Asia/Kolkata")
    guest.run("timedatectl set-timezone Europe/Berlin")
    alarm_follows("and back to Berlin")
    guest.run(f"date -s '{lab.day} 08:10'")
    alarm_follows("the wall clock is put forward to 08:10")
    guest.run(f"date -s '{lab.day} 05:20'")
    alarm_follows("and back to 05:20, the real-time clock is not")
    guest.run(f"timedatectl set-ntp false && timedatectl set-time '{lab.day} 08:59:33'")
    guest.mark()
    guest.suspend()
    lab.on_time("both clocks are set to 08:59:33 by hand: it wakes the machine",
                guest.await_wake_up(40), guest.seconds("09:00") - LEAD, WAKE_LATE)


def poweroff(lab):
    guest = lab.guest()
    guest.run("apt install polkitd", 300)
    guest.run("systemctl enable television && echo OPTIONS=--standby >/etc/default/television")
    guest.configure("off-action = poweroff", "return-to-sleep = 0")
    guest.set_clock("06:56:50")
    guest.add("--at 06:57 --type off")
    timer, due = guest.add("--at 07:00 --on daily"), guest.seconds("07:00")
    guest.await_television("standby", 30)
    guest.await_end(60)
    lab.row("off-action = poweroff, polkit installed", "the machine is off", True)
    guest = lab.guest(rtc=f"{lab.day}T05:58:30")
    guest.run("systemd-run --unit=listener -p SyslogIdentifier=listener dravelctl monitor")
    lab.on_time("booted at the time of its alarm: the timer fires", guest.await_expiry(timer, 90),
                due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)
    shown = guest.run("dravelctl wakeup")
    credited(lab, timer, shown)
    guest.cast("systemctl poweroff")
    guest.await_end(60)
    guest = lab.guest(rtc=f"{lab.day}T10:00:00")
    shown = guest.run("dravelctl wakeup")
    not_credited(lab, "booted at another time: no timer is credited", shown)
    told = guest.television_was_told()
    lab.row("the television is left as it is", ", ".join(told) or "told nothing",
            not any("Changing" in line for line in told))
    kept = len(guest.timers())
    lab.row("the timer is kept", f"{kept} listed", kept == 1)


def missing(lab):
    guest = lab.guest()
    guest.run("systemctl stop dravel-manager television && modprobe -r vivid")
    guest.run("basename $(realpath /sys/class/rtc/rtc0/device) "
              ">/sys/bus/pnp/drivers/rtc_cmos/unbind")
    guest.set_wall_clock("06:59:50")
    guest.run("systemctl start dravel-manager")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    for part, pattern in (("no CEC adapter", "DRAVEL.*CEC"),
                          ("no real-time clock", "DRAVEL.*rtc0")):
        lines = guest.journal(pattern)
        lab.row(f"{part}: one line", lines[0][1].split(": ", 1)[1] if lines else "none",
                len(lines) == 1)
    lab.on_time("the daemon works on", guest.await_expiry(timer, 30), due)


def local(lab):
    guest = lab.guest()
    guest.television_off()
    guest.run("timedatectl set-local-rtc 1")
    guest.set_clock("06:59:32")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    ahead = guest.rtc_now() - guest.now()
    lab.row("the real-time clock counts local time", f"{ahead:.0f} s ahead of UTC", ahead > 3590)
    guest.suspend()
    lab.on_time("the alarm wakes", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("the on-timer fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)


# --- killed during changes and expiries ---

class Ledger:
    """The timers that there must be, from what the guest's `changes` and `after-kill` print."""

    def __init__(self):
        self.timers, self.begun, self.highest = set(), None, 0
        self.due, self.announced = {}, collections.Counter()  # of the one-shot timers, by id
        self.changes, self.cut_off = 0, 0
        self.failures = []

    def read(self, before, after):
        """Takes in one kill. The last line of `before` may be cut off, and the shell's prompt may
        stand before the first."""
        announced = set()
        for mark, timer, due in re.findall(r"(?:^|\s)([?+!-])(\d+)(?:@(\d+))?(?=\n)", before):
            timer = int(timer)
            self.changes += mark in "+-"
            if mark == "?":
                self.begun = timer
            elif mark == "-":
                self.timers.discard(timer)
                self.begun = None
            elif mark == "!":
                announced.add(timer)
                self.announced[timer] += 1
            else:
                self.highest = max(self.highest, timer)
                if due:
                    self.due[timer] = int(due)
                else:
                    self.timers.add(timer)
        killed, answered = (int(time) for time in re.findall(r"=(\d+)", after))
        self.announced.update(int(timer) for timer in re.findall(r"!(\d+)", after))
        self.cut_off += any(int(timer) in announced for timer in re.findall(r"~(\d+)", after))
        self.judge_expiries(killed, answered)

    def judge_expiries(self, killed, answered):
        """Those due while the daemon was down need not expire; `due` counts whole seconds."""
        self.failures += [f"{timer} expired {count} times"
                          for timer, count in self.announced.items() if count > 1]
        self.failures += [f"{timer} did not expire at {due}, killed at {killed}, up at {answered}"
                          for timer, due in self.due.items() if not self.announced[timer] and
                          (due < killed - EXPIRY_LATE or due > answered + 1)]

    def judge(self, listed):
        """Takes note of what is lost and what has come back, and goes on from what is listed. It is
        not known whether the last change was made."""
        lost = self.timers - listed - {self.begun}
        more = sorted(listed - self.timers)
        if more and more[-1] > self.highest:
            self.highest = more.pop()  # added without an answer
        self.failures += [f"{timer} is lost" for timer in lost]
        self.failures += [f"{timer} is back" for timer in more]
        self.timers, self.begun = set(listed), None
        self.due.clear()


def killed(lab, asked, rounds):
    """`rounds` yields for each kill what was printed before and after it, and what is listed then.
    Every second kill follows the announcement of an expiry at once, the others some changes."""
    ledger, told = Ledger(), 0
    for count, (before, after, listed) in enumerate(rounds, 1):
        ledger.read(before, after)
        ledger.judge(listed)
        if len(ledger.failures) > told:
            lab.tell(f"kill {count}: {ledger.failures[told:]}, {before[-200:]!r}, {after!r}")
            told = len(ledger.failures)
    lab.row(f"{asked} {count} times during changes",
            f"{ledger.changes} acknowledged changes, {len(ledger.failures)} failures",
            ledger.changes >= 2 * count and not ledger.failures)
    expired = sum(ledger.announced.values())
    lab.row("and at expiries; before the row of an announced timer was deleted",
            f"{expired} expired; {ledger.cut_off} times", ledger.cut_off > 0)


def prepare_kills(lab, guest):
    for name in ("changes", "after-kill"):
        text = (lab.root / "scripts" / "vm" / name).read_text()
        guest.run(f"echo {shlex.quote(text)} >/usr/local/bin/{name}; "
                  f"chmod 755 /usr/local/bin/{name}")
    guest.configure("off-action = none")
    guest.run("systemd-run --unit=announced sh -c \"dbus-monitor --system member=dravel_expired | "
              "sed -un 's/^ *int32 /!/p' >>/run/announced\"")
    return random.Random(1), lab.rounds or KILLS


def daemon(lab):
    guest = lab.guest()
    dice, kills = prepare_kills(lab, guest)

    def rounds():
        for count in range(kills):
            wait = ("read -r < <(tail -fn +1 /run/announced)" if count % 2 else
                    f"until [ $(wc -l <acknowledged) -ge {dice.randint(1, 10)} ]; do sleep 0.1; "
                    f"done; sleep {dice.uniform(0, 0.2):.3f}")
            before = guest.run(
                f"pid=$(pidof dravel-manager); changes >acknowledged & changing=$!; {wait}; "
                "kill -KILL $pid; echo =$EPOCHSECONDS >killed; wait $changing; "
                "cat acknowledged /run/announced; : >/run/announced", 120, check=False)
            after = guest.run("cat killed; after-kill")
            yield f"{before}\n", after, set(guest.timers())

    killed(lab, "the daemon is killed", rounds())


def machine(lab):
    """The store is on a disk that survives the machine, and time goes on; everything else begins as
    it was."""
    guest = lab.guest()
    dice, kills = prepare_kills(lab, guest)
    guest.run("systemctl stop dravel-manager")
    guest.human("savevm spare")
    ahead = guest.now() - time.monotonic()
    guest.kill()
    store = lab.directory / "store.raw"
    store.unlink(missing_ok=True)
    subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", str(store), "16M"], check=True,
                   stdout=subprocess.DEVNULL)

    def rounds():
        before, after = "", ""
        for count in range(kills + 1):
            guest = lab.guest(snapshot="spare")
            guest.run(f"date -s @{time.monotonic() + ahead:.2f}")
            guest.plug_store(store)
            guest.run("systemctl start dravel-manager")
            after += guest.run("after-kill")
            if count > 0:
                yield before, after, set(guest.timers())
            if count < kills:
                guest.cast("changes & tail -fn 0 /run/announced")
                if count % 2:
                    lines = [guest.shell.read_until(b"!", 30) + b"!"]
                    lines[0] += guest.shell.read_until(b"\n", 30)
                else:
                    lines = [guest.shell.read_until(b"\n", 30)
                             for _ in range(dice.randint(1, 10))]
                    time.sleep(dice.uniform(0, 0.2))
                guest.kill()
                after = f"={time.monotonic() + ahead:.0f}\n"
                before = b"\n".join([*lines, guest.shell.read_rest()]).decode(errors="replace")
            guest.kill()

    killed(lab, "the machine is killed", rounds())


# --- a night ---

class Night:
    """Rounds of sleep and wake-up. Each has a minute of its own, at whose end its timer is due."""

    def __init__(self, guest):
        self.guest, self.due = guest, guest.seconds("01:00")
        self.expected, self.wrong = {}, 0  # due times by timer; credits
        self.television = "on"
        self.timer, self.credited = None, None
        guest.set_clock("01:00")

    def begin(self, second, television, options=""):
        """Somebody uses the television's remote, a timer is added, the clock shows `second`."""
        if television != self.television:
            if television == "standby":
                self.end_order()
            self.guest.run("cec-ctl -d1 --to 0 "
                           f"--{'standby' if television == 'standby' else 'image-view-on'}")
            self.await_television(television)
        self.due += 60
        self.timer = self.guest.add(f"--at {self.guest.clock_time(self.due)} {options}")
        self.guest.set_clock(self.guest.clock_time(self.due - 60 + second))

    def end_order(self):
        """The television says that it is on after 8 s by its clock, and is told again until then.
        With the clock moved the next question, if there still is one, is the last."""
        self.guest.set_wall_clock(self.guest.clock_time(self.due + 20))
        try:
            self.guest.await_journal("GIVE_DEVICE_POWER_STATUS", 2)
        except Trouble:
            pass

    def expires(self):
        self.expected[self.timer] = self.due
        self.guest.await_expiry(self.timer, 30)

    def await_television(self, state):
        self.guest.await_television(state)
        self.television = state

    def judge_credit(self):
        """The credit stays until another timer is credited."""
        shown = self.guest.run("dravelctl wakeup")
        self.wrong += not (shown == "No timer woke the set." if self.credited is None
                           else re.search(rf"Timer: +{self.credited}\b", shown))

    def alarm_wakes(self):
        self.guest.suspend()
        self.guest.await_wake_up(30)
        self.expires()
        self.credited = self.timer

    def user_wakes(self):
        self.guest.qmp("system_wakeup")
        self.guest.await_wake_up(20)
        self.judge_credit()

    def on(self):
        self.begin(48, "standby")
        self.alarm_wakes()
        self.await_television("on")
        self.judge_credit()

    def off(self):
        self.begin(51, "on", "--type off")
        self.expires()
        self.await_television("standby")
        self.guest.await_sleep(40)
        self.user_wakes()

    def early(self):
        self.begin(48, "on")
        self.guest.suspend()
        self.user_wakes()
        self.expires()
        self.judge_credit()

    def cancelled(self):
        self.begin(48, "standby")
        self.guest.suspend()
        self.user_wakes()
        self.guest.run(f"dravelctl cancel {self.timer}")

    def other(self):
        self.begin(48, "standby", "--type wake-20")
        self.alarm_wakes()
        self.guest.await_sleep(40)
        self.user_wakes()
        if any("to on" in line for line in self.guest.television_was_told()):
            raise Trouble("the television was turned on")


def night(lab):
    guest = lab.guest()
    guest.configure("lead-suspend = 5", "return-to-sleep = 3")
    dice, rounds = random.Random(SEED), lab.rounds or NIGHT
    kinds, memory, the_night = collections.Counter(), {}, Night(guest)
    try:
        for count in range(1, rounds + 1):
            [kind] = dice.choices((Night.on, Night.off, Night.early, Night.cancelled, Night.other),
                                  weights=(3, 4, 2, 4, 2))
            kind(the_night)
            kinds[kind.__name__] += 1
            if count in (10, rounds):
                memory[count] = guest.memory()
    finally:
        seen = ", ".join(f"{count} {kind}" for kind, count in sorted(kinds.items()))
        lab.row(f"{rounds} rounds, seed {SEED}", seen, sum(kinds.values()) == rounds)
    expired = guest.all_expiries()
    lab.row("each timer that is not cancelled expires once",
            f"{len(the_night.expected)} due, {len(expired)} expired",
            sorted(timer for _, timer in expired) == sorted(the_night.expected))
    late = max(time - the_night.expected.get(timer, time) for time, timer in expired)
    lab.row("the latest of them", "", late <= ON_SECOND, late)
    lab.row("credited wrongly", f"{the_night.wrong}", the_night.wrong == 0)
    for name, first in memory[10].items():
        last = memory[rounds][name]
        lab.row(f"memory of the daemon: {name} after 10 and {rounds} rounds",
                f"{first} kB, {last} kB", last - first <= GROWTH)


# --- figures ---

def figures(lab):
    """What docs/performance.md says of a machine with ten timers."""
    guest = lab.guest()
    the_night, armed, told = Night(guest), [], []
    for hour in range(10, 20):
        guest.add(f"--at {hour}:00 --on daily")
    guest.configure("lead-suspend = 5")
    guest.run("sleep 60", 90)  # systemd-timedated, which the daemon has asked, ends itself
    switches = guest.switches()
    guest.run(f"sleep {IDLE}", IDLE + 60)
    woken = guest.switches() - switches
    lab.row(f"idle for {IDLE} s with ten timers: context switches", f"{woken}", woken <= MAY_WAKE)
    memory = guest.memory()
    lab.row("memory of the daemon", ", ".join(f"{name} {size} kB" for name, size in memory.items()),
            memory["VmRSS"] < RESIDENT)
    for _ in range(lab.rounds or WAKE_UPS):
        the_night.on()
        times = {name: guest.journal(pattern)[-1][0] for name, pattern in (
            ("resume", "System returned from sleep"), ("expiry", "dravel expired"),
            ("television", "Changing state to on"))}
        programmed = [time for time, _ in guest.journal("micom ontime") if time < times["expiry"]]
        armed.append(programmed[-1] - times["resume"])
        told.append(times["television"] - times["expiry"])
    for asked, seen, limit in (("a resume to armed timers and the alarm", armed, WAKE_LATE),
                               ("an expiry to the television's line", told, TELEVISION_LATE)):
        lab.row(f"from {asked}: median of {len(seen)}; the longest",
                f"{statistics.median(seen):.2f} s", max(seen) <= limit, max(seen))


CASES = {case.__name__: case for case in (
    install, suspend, off, wakeup, early, halted, skipped, clocks, local, poweroff, missing, daemon,
    machine, night, figures)}
NAMED_ONLY = ("night", "figures")
