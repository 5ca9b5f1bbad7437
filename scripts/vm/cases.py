"""The cases, in the order in which they run."""
import random
import re
import subprocess
import time

from guest import LEAD

CHANGES = 20  # rounds of a killed daemon and of a killed machine
TELEVISION_LATE = 2.5  # seconds: an expiry and two messages on the cable
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


# --- killed during changes ---

class Ledger:
    """The timers that there must be. Of the last change it is not known whether it was made."""

    def __init__(self):
        self.timers, self.begun, self.highest = set(), None, 0

    def read(self, output):
        """Takes in what is acknowledged; returns how many changes. The last line may be cut off, and
        the shell's prompt may stand before the first."""
        changes = re.findall(r"(?:^|\s)([?+-])(\d+)(?=\n)", output)
        for mark, timer in changes:
            if mark == "?":
                self.begun = int(timer)
            elif mark == "+":
                self.timers.add(int(timer))
                self.highest = max(self.highest, int(timer))
            else:
                self.timers.discard(int(timer))
                self.begun = None
        return sum(mark != "?" for mark, _ in changes)

    def judge(self, listed):
        """Returns what is lost and what has come back, and goes on from what is listed."""
        lost = self.timers - listed - {self.begun}
        more = sorted(listed - self.timers)
        if more and more[-1] > self.highest:
            self.highest = more.pop()  # added without an answer
        self.timers, self.begun = set(listed), None
        return lost, more


def killed(lab, asked, rounds):
    """`rounds` yields, for each kill, what was acknowledged before it and what is listed after."""
    ledger, lost, returned, changes = Ledger(), 0, 0, 0
    for count, (output, listed) in enumerate(rounds, 1):
        changes += ledger.read(output)
        gone, more = ledger.judge(listed)
        lost += len(gone)
        returned += len(more)
        if gone or more:
            lab.tell(f"kill {count}: lost {sorted(gone)}, back {more}, after {output[-200:]!r}")
    lab.row(f"{asked} {count} times during changes",
            f"{changes} acknowledged changes, {lost + returned} lost",
            changes > 3 * count and lost + returned == 0)


def daemon(lab):
    guest = lab.guest()
    dice = random.Random(1)

    def rounds():
        for _ in range(CHANGES):
            output = guest.run(
                "changes >acknowledged & "
                f"until [ $(wc -l <acknowledged) -ge {dice.randint(1, 10)} ]; do sleep 0.1; done; "
                f"sleep {dice.uniform(0, 0.2):.3f}; systemctl kill -s KILL dravel-manager; "
                "wait; cat acknowledged", check=False)
            guest.run("until dravelctl list >/dev/null 2>&1; do sleep 0.1; done")
            yield f"{output}\n", set(guest.timers())

    killed(lab, "the daemon is killed", rounds())


def machine(lab):
    """The store is on a disk that survives the machine; everything else begins as it was."""
    guest = lab.guest()
    guest.run("systemctl stop dravel-manager")
    guest.human("savevm spare")
    guest.kill()
    store = lab.directory / "store.raw"
    store.unlink(missing_ok=True)
    subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", str(store), "16M"], check=True,
                   stdout=subprocess.DEVNULL)
    dice = random.Random(2)

    def rounds():
        output = ""
        for count in range(CHANGES + 1):
            guest = lab.guest(snapshot="spare")
            guest.plug_store(store)
            guest.run("systemctl start dravel-manager")
            if count > 0:
                yield output, set(guest.timers())
            if count < CHANGES:
                guest.cast("changes")
                lines = [guest.shell.read_until(b"\n", 30) for _ in range(dice.randint(1, 10))]
                time.sleep(dice.uniform(0, 0.2))
                guest.kill()
                output = b"\n".join([*lines, guest.shell.read_rest()]).decode(errors="replace")
            guest.kill()

    killed(lab, "the machine is killed", rounds())


CASES = {case.__name__: case for case in (
    install, suspend, off, wakeup, early, halted, skipped, clocks, local, poweroff, missing, daemon,
    machine)}
