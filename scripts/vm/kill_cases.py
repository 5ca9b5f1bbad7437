"""The cases of a daemon and a machine that are killed during changes, expiries and migrations."""
import collections
import random
import re
import shlex
import shutil
import sqlite3
import subprocess
import tempfile
import time

KILLS = 20  # unless told otherwise
EXPIRY_LATE = 3  # seconds: an expiry is announced on a busy machine


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


# --- migrations ---

OLD = 40  # timers of version 0
MIGRATED = 0.8  # seconds after which a start has done so; the cuts come closer to when it does
NARROWEST = 0.1
COLUMNS = ("timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year, "
           "tm_wday, tm_yday, tm_isdst, delay, week_flag, micom_flag, disable_period_effect")


def old_store(path):
    """Makes a disk with a store of version 0: daily off-timers at 07:00, 07:01, ..."""
    with tempfile.TemporaryDirectory() as directory:
        for name in (".dravel.db", ".wakeup_dravel.db"):
            with sqlite3.connect(f"{directory}/{name}") as store:
                store.execute(f"CREATE TABLE dravel({COLUMNS})")
                if name == ".dravel.db":
                    store.executemany("INSERT INTO dravel VALUES(?,1,0,0,0,?,7,1,0,120,0,0,0,0,127,0,0)",
                                      [(number, number - 1) for number in range(1, OLD + 1)])
            store.close()
        subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", "-d", directory, str(path), "16M"],
                       check=True, stdout=subprocess.DEVNULL)


def migration(lab):
    """The power is cut while a store of version 0 is migrated; the next start goes on."""
    guest = lab.guest()
    guest.run("systemctl stop dravel-manager")
    guest.human("savevm spare")
    guest.kill()
    old, store = lab.directory / "old.raw", lab.directory / "store.raw"
    old_store(old)
    dice, cuts = random.Random(2), lab.rounds or KILLS // 2
    interrupted, wrong = 0, 0
    low, high = 0.0, MIGRATED
    for _ in range(cuts):
        shutil.copyfile(old, store)
        guest = lab.guest(snapshot="spare")
        guest.plug_store(store)
        guest.cast("systemctl --no-block start dravel-manager; "
                   "until pidof dravel-manager; do :; done")
        guest.shell.read_until(b"\n", 30)
        wait = dice.uniform(low, high)
        time.sleep(wait)
        guest.kill()
        guest = lab.guest(snapshot="spare")
        guest.plug_store(store)
        guest.run("systemctl start dravel-manager")
        times = sorted(timer["at"][11:16] for timer in guest.timers().values())
        files = guest.run("ls -A /opt/dbspace").split()
        if guest.journal("the migration was interrupted"):
            interrupted += 1
        elif guest.journal("__migration_0_to_1"):  # too early
            low = min((low + wait) / 2, high - NARROWEST)
        else:
            high = max((high + wait) / 2, low + NARROWEST)
        if (times != [f"07:{minute:02}" for minute in range(OLD)] or
                files != [".dravel.db", ".wakeup_dravel.db", "lost+found"]):
            wrong += 1
            lab.tell(f"{len(times)} timers, {files}")
        guest.kill()
    lab.row(f"the power is cut {cuts} times at a migration: {OLD} timers are kept",
            f"{interrupted} interrupted, {wrong} wrong", interrupted > 0 and wrong == 0)


CASES = (daemon, machine, migration)
