"""The cases that take long, and are run only when they are named."""
import collections
import datetime
import random
import re
import statistics

from laboratory import ON_SECOND, TELEVISION_LATE, WAKE_LATE
from machine import Trouble

NIGHT = 200  # rounds, unless told otherwise
WEEKENDS = 10  # one round of so many is a weekend
WEEKEND = datetime.timedelta(days=3)
SEED = 3  # of a night on the first machine
WAKE_UPS = 10  # that are timed, unless told otherwise
IDLE = 300  # seconds
MAY_WAKE = 10  # context switches in that time
RESIDENT = 12000  # kB
# kB that the daemon may grow by after the tenth round. glibc takes memory in steps of 132 kB; a
# page of a library counts once it is used. 256 kB in 190 rounds are 1.3 kB a round.
GROWTH = 256


class Night:
    """Rounds of sleep and wake-up. Each has a minute of its own, at whose end its timer is due."""

    def __init__(self, guest):
        self.guest, self.due = guest, guest.seconds("01:00")
        self.expected, self.wrong = {}, 0  # due times by timer; credits
        self.television = "on"
        self.timer, self.credited, self.hops = None, None, 0
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
        self.guest.wake()
        self.judge_credit()

    def on(self):
        self.begin(20, "standby")
        self.alarm_wakes()
        self.await_television("on")
        self.judge_credit()

    def off(self):
        self.begin(51, "on", "--type off")
        self.guest.await_sleep(60)
        self.user_wakes()
        self.expires()
        self.await_television("standby")

    def early(self):
        self.begin(20, "on")
        self.guest.suspend(15)
        self.user_wakes()
        self.expires()
        self.judge_credit()

    def cancelled(self):
        self.begin(20, "standby")
        self.guest.suspend(None)
        self.user_wakes()
        self.guest.run(f"dravelctl cancel {self.timer}")

    def other(self):
        self.begin(20, "standby", "--type wake-20")
        self.alarm_wakes()
        self.guest.await_sleep(40)
        self.user_wakes()
        if any("to on" in line for line in self.guest.television_was_told()):
            raise Trouble("the television was turned on")

    def weekend(self):
        """The real-time clock takes no alarm that far ahead: the machine is woken on the way."""
        monday = datetime.date.fromisoformat(self.guest.day) + WEEKEND
        self.begin(20, "standby", f"--on {monday:%a}")
        self.due += int(WEEKEND.total_seconds())
        self.guest.suspend()
        while self.guest.await_wake_up(30) < self.due - 60:
            self.hops += 1
            self.judge_credit()
            self.guest.await_sleep(40, 4)
        self.guest.day = str(monday)
        self.expires()
        self.credited = self.timer
        self.await_television("on")
        self.judge_credit()
        self.guest.run(f"dravelctl cancel {self.timer}")


def night(lab):
    guest = lab.guest()
    guest.configure("lead-suspend = 5", "return-to-sleep = 8")
    seed, rounds = SEED + lab.number, lab.rounds or NIGHT
    dice = random.Random(seed)
    planned = dice.choices((Night.on, Night.off, Night.early, Night.cancelled, Night.other),
                           weights=(3, 4, 2, 4, 2), k=rounds - rounds // WEEKENDS)
    planned += [Night.weekend] * (rounds // WEEKENDS)
    dice.shuffle(planned)
    kinds, memory, the_night = collections.Counter(), {}, Night(guest)
    try:
        for count, kind in enumerate(planned, 1):
            kind(the_night)
            kinds[kind.__name__] += 1
            if count in (10, rounds):
                memory[count] = guest.memory()
    finally:
        seen = ", ".join(f"{count} {kind}" for kind, count in sorted(kinds.items()))
        lab.row(f"{rounds} rounds, seed {seed}; {the_night.hops} hops", seen,
                sum(kinds.values()) == rounds)
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


CASES = (night, figures)
