"""The cases of what calendars, other programs and devices do to the machine."""
import datetime
import re
import time

from guest import LEAD, MACHINE
from laboratory import HOOK_LATE, TELEVISION_LATE, WAKE_LATE

NEARNESS = 20  # seconds: the delay that Debian's logind allows, and 15
LATE_WAKE = 5  # seconds from a late wake-up to the television's line
RECORDING = 300  # seconds
SOON = 16  # seconds: a television is asked 10 s before an on-time
GIVES_UP = 15  # seconds that a television has to say that it is on
SUSPEND = "/etc/systemd/system/systemd-suspend.service.d"


def date_after(day, days):
    return str(datetime.date.fromisoformat(day) + datetime.timedelta(days=days))


def last_wake(lab, guest, asked, by):
    shown = guest.shows("LastWake")
    lab.row(asked, shown, f'"{by}"' in shown)


def told_of(guest, timer, due):
    """What `dravelctl` says of an on-time."""
    return guest.run(f"LC_ALL=C date -d @{due} +'Wakes for: timer {timer}, at %a %F %T'")


def tells(lab, guest, asked, told, woken_by=""):
    """A row for whether `dravelctl` tells it, and an alarm stands that leads to it. One command: a
    machine that was woken for nobody sleeps again soon."""
    seen = guest.run("dravelctl | grep -o 'Wakes for.*'; date -u +%s; "
                     f"busctl get-property {MACHINE} Alarm LastWake")
    shown, now, alarm, cause = seen.splitlines()
    lab.row(asked, " ".join([shown, *woken_by.split()]),
            shown == told and int(alarm.split()[1]) > int(now) and f'"{woken_by}' in cause)


def next_minute(guest):
    """The clock is put before a full minute, which it returns: an on-timer knows no seconds."""
    due = int(guest.now()) // 60 * 60 + 120
    guest.set_wall_clock(guest.clock_time(due - SOON))
    return due


def weekend(lab):
    guest = lab.guest()
    guest.television_off()
    guest.day = date_after(lab.day, 4)
    guest.set_clock("18:00:00")
    timer, begin = guest.add("--at 07:00 --on weekdays"), guest.now()
    guest.add("--at 22:00 --type off --on daily")
    guest.day = date_after(lab.day, 7)
    due, hops = guest.seconds("07:00"), 0
    told = told_of(guest, timer, due)
    tells(lab, guest, "on Friday at 18:00 dravelctl tells of Monday", told)
    guest.suspend()
    while True:
        woken = guest.await_wake_up(40)
        if woken > due - 60 or hops == 9:
            break
        hops += 1
        tells(lab, guest, f"after {(woken - begin) / 3600:.1f} hours a hop, and still Monday", told,
              "hop")
        guest.await_sleep(40, 4)
    lab.row("hops, and it slept again after each", f"{hops}", hops == 2)
    lab.on_time(f"woken after {(woken - begin) / 3600:.1f} hours", woken, due - LEAD, WAKE_LATE)
    lab.on_time("the on-timer fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)
    told = guest.television_was_told()
    lab.row("and once only", ", ".join(told), sum("to on" in line for line in told) == 1)
    lab.credited(timer, guest.run("dravelctl wakeup"))


def delayed(lab):
    guest = lab.guest()
    guest.television_off()
    guest.run("systemd-run --unit=slow systemd-inhibit --what=sleep --mode=delay sleep 600")
    guest.set_clock("06:59:38")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    guest.suspend(None)
    woken = guest.await_wake_up(60)
    lab.on_time("a program delays the sleep past the alarm: woken all the same", woken, due - LEAD,
                LEAD + NEARNESS)
    lab.on_time("the television is turned on", guest.await_television("on"), max(woken, due),
                LATE_WAKE)


def target_starts(lab, guest, asked, target, due, limit=HOOK_LATE):
    """A row for when systemd reached `target`, and whether it stands."""
    reached, _ = guest.await_journal(f"Reached target {target}", 30)
    lab.on_time(asked, reached, due, limit)
    state = guest.run(f"systemctl is-active {target}", check=False)
    lab.row(target, state, state == "active")


def refused(lab):
    """Without CEC, where nothing says whether the screen is on."""
    guest = lab.guest()
    guest.configure("cec = off", "return-to-sleep = 8")
    guest.run(f"mkdir -p {SUSPEND} && printf '[Service]\\nExecStart=\\nExecStart=/bin/false\\n' "
              f">{SUSPEND}/refuse.conf && systemctl daemon-reload")
    guest.set_clock("06:57:48")
    guest.add("--at 06:58 --type off --on daily")
    for name, pattern in (("Postponed", "failed"), ("Problems", "as 1 "), ("Screen", '"off"')):
        shown = guest.await_shown(name, pattern, 40)
        lab.row(f"a suspend fails: {name}", shown, re.search(pattern, shown))
    guest.run(f"rm -r {SUSPEND} && systemctl daemon-reload")
    guest.await_sleep(60)
    lab.row("tried again after 30 s", "asleep", True)
    guest.qmp("system_wakeup")
    guest.await_wake_up(20)
    shown = guest.shows("Problems")
    lab.row("no problem is left", shown, shown == "as 0")
    due = next_minute(guest)
    guest.add(f"--at {guest.clock_time(due)}")
    target_starts(lab, guest, "the next on-timer turns the screen on", "dravel-on.target", due)


def without_cec(lab):
    guest = lab.guest()
    guest.configure("cec = off", "return-to-sleep = 8")
    guest.set_clock("06:58:48")
    off_timer, due = guest.add("--at 06:59 --type off --on daily"), guest.seconds("07:00")
    guest.add("--at 07:00")
    guest.await_sleep(60, 4)
    guest.await_wake_up(60)
    reached, _ = guest.await_journal("Reached target dravel-off.target", 10)
    lab.on_time("an off-timer: dravel-off.target, and asleep", reached, due - 60, HOOK_LATE)
    target_starts(lab, guest, "an on-timer after the sleep", "dravel-on.target", due)
    guest.mark()
    due = int(guest.now()) + SOON
    guest.run(f"dravelctl change {off_timer} --at {guest.clock_time(due)}")
    guest.await_sleep(40)
    guest.human("sendkey a")
    woken = guest.await_wake_up(20)
    guest.human("sendkey a")  # the first one only woke the keyboard's controller
    shown = guest.await_shown("LastWake", '"user"', 10)
    lab.row("woken by a key", shown, '"user"' in shown)
    target_starts(lab, guest, "the screen is turned on", "dravel-on.target", woken)


def foreign(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:50:00")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    earlier, later = due - 400, due + 400
    guest.set_foreign_alarm(earlier)
    guest.suspend()
    lab.on_time("another program's alarm is earlier: it wakes", guest.await_wake_up(20), earlier,
                WAKE_LATE)
    last_wake(lab, guest, "that is known", "foreign")
    lab.not_credited("no timer is credited", guest.run("dravelctl wakeup"))
    guest.run("sleep 12")  # longer than return-to-sleep
    lab.television_stayed_off(guest, "awake, the television off")
    guest.set_foreign_alarm(later)
    guest.suspend()
    lab.on_time("it is later: ours wakes", guest.await_wake_up(20), due - LEAD, WAKE_LATE)
    deadline = time.monotonic() + 10
    while guest.alarm() != later and time.monotonic() < deadline:
        time.sleep(0.2)
    lab.row("then the other one stands again", f"{guest.alarm() - later} s off",
            guest.alarm() == later)
    lab.on_time("the on-timer fires on its second", guest.await_expiry(timer, 30), due)
    lab.credited(timer, guest.run("dravelctl wakeup"))


def summer(lab):
    """The clock on the screen jumps under a machine that is awake."""
    guest = lab.guest()
    guest.configure("off-action = none")
    guest.run("systemctl enable hook.service")
    guest.television_off()
    guest.day = "2027-03-28"
    guest.set_clock("01:59:40")
    guest.add("--at 02:30 --type wake-20 --on daily")
    guest.add("--at 03:00 --on daily")
    off_timer, due = guest.add("--at 03:00:15 --type off --on daily"), guest.seconds("03:00")
    lab.on_time("from 02:00 to 03:00 at once: the on-timer of 03:00", guest.await_television("on", 50),
                due, TELEVISION_LATE)
    lab.on_time("and the off-timer of 03:00:15 fires on its second",
                guest.await_expiry(off_timer, 60), due + 15)
    run = len(guest.journal("the hook has run"))
    lab.row("a timer of 02:30 does not", f"run {run} times", run == 0)
    guest.day = "2027-10-31"
    begin = guest.seconds("02:59:45 +0200")
    guest.run(f"date -s @{begin} && (hwclock --systohc || hwclock --systohc)")
    guest.mark()
    guest.run("sleep 35", 60)
    expired = len(guest.journal("listener.*expired"))
    lab.row("an hour comes twice: no timer of 03:00 35 s later", f"{expired} expired", expired == 0)
    guest.run(f"date -s @{begin + 3600 + 15}")
    lab.on_time("but an hour later, on its second", guest.await_expiry(off_timer, 60),
                begin + 3600 + 30)


def recording(lab):
    guest = lab.guest()
    guest.run("systemctl enable hook.service && mkdir /etc/systemd/system/hook.service.d && "
              f"printf '[Service]\\nExecStart=/bin/sleep {RECORDING}\\n' "
              ">/etc/systemd/system/hook.service.d/long.conf && systemctl daemon-reload")
    guest.television_off()
    guest.set_clock("06:59:00")
    timer, due = guest.add("--at 07:00 --type wake-20"), guest.seconds("07:00")
    guest.suspend()
    guest.await_wake_up(30)
    guest.await_expiry(timer, 30)
    shown = guest.await_shown("Postponed", "dravel-wakeup", 30)
    lab.row("woken to record; the return to sleep waits", shown, "dravel-wakeup" in shown)
    guest.await_sleep(RECORDING + 40)
    guest.qmp("system_wakeup")
    guest.await_wake_up(20)
    ended, _ = guest.await_journal("Finished hook.service", 10)
    lab.on_time(f"slept once {RECORDING} s were recorded", ended, due + RECORDING, HOOK_LATE)
    lab.television_stayed_off(guest, "the television stayed off")


def bad_file(lab):
    guest = lab.guest()
    guest.configure("off-action = none", "return-to-sleep = 0")
    for bad in ("off-action = sleep", "off-action"):
        guest.mark()
        guest.configure(bad)
        _, line = guest.await_journal("dravel-manager.conf: .*; what is in force stays$", 10)
        lab.row("a reload with a bad file: one line", line.split("conf: ")[1],
                len(guest.journal("dravel-manager.conf: ")) == 1)
    guest.set_clock("06:59:48")
    guest.add("--at 07:00 --type off")
    guest.await_television("standby")
    guest.run("sleep 15", 40)
    lab.row("the off-action in force is none", f"{guest.events or 'awake'}",
            "SUSPEND" not in guest.events)


def silence(lab, guest, asked):
    """What is said about a television that does not answer, after it was turned on."""
    guest.await_journal("15 seconds after it was turned on", GIVES_UP + 20)
    told = [text.split(": ", 1)[1] for _, text in guest.journal("the television does not answer")]
    lab.row(asked, ", ".join(told), len(told) == 1)
    shown = guest.shows("Screen")
    lab.row("its screen counts as", shown, shown == 's "unknown"')


def television(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:48")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    guest.run("systemctl kill -s STOP television")
    guest.await_expiry(timer, 30)
    guest.run("sleep 5")
    guest.run("systemctl kill -s CONT television")
    shown = guest.await_shown("Screen", '"on"', GIVES_UP + 10)
    lab.row("a television answers after 5 s, and takes 8: its screen counts as", shown,
            shown == 's "on"')
    lab.on_time("it is turned on", guest.await_television("on"), due, GIVES_UP)
    for how, command in (("does not answer", "systemctl kill -s STOP television"),
                         ("has gone", "systemctl stop television; cec-ctl -d0 --clear")):
        guest.run(command)
        due = next_minute(guest)
        guest.add(f"--at {guest.clock_time(due)}")
        silence(lab, guest, f"a television that was on {how}: one line")
    guest.run("systemctl start television")
    due = next_minute(guest)
    guest.add(f"--at {guest.clock_time(due)}")
    lab.on_time("it is back, and turned on", guest.await_television("on", 40), due,
                TELEVISION_LATE)


def clockless(lab):
    guest = lab.guest()
    guest.set_clock("06:00:00")
    timer = guest.add("--at 07:00 --on daily")
    guest = lab.reboot(guest, "2001-01-01T00:00:00")
    shown = guest.run("dravelctl | grep Clock:").strip()
    lab.row("booted with an empty battery", shown, "unknown" in shown)
    guest.set_wall_clock("06:59:45")
    lab.on_time("once the clock is set the timer fires on its second",
                guest.await_expiry(timer, 60), guest.seconds("07:00"))


def trial(lab):
    guest = lab.guest()
    guest.configure("return-to-sleep = 25")
    guest.television_off()
    guest.set_clock("06:00:00")
    timer = guest.add("--at 09:00 --on daily")
    told = told_of(guest, timer, guest.seconds("09:00"))
    guest.run(f"systemd-run --unit=trial busctl --timeout=600 call {MACHINE} TestWake u 60")
    guest.await_sleep(20, 4)
    guest.await_wake_up(90)
    _, answer = guest.await_journal("busctl.*us ", 20)
    lab.row("TestWake of 60 s answers", answer.split(": ", 1)[1],
            re.search(r'us (5\d|6[0-5]) "test"', answer))
    tells(lab, guest, "the alarm of the timer stands again", told, "test")
    lab.not_credited("no timer is credited", guest.run("dravelctl wakeup"))
    lab.sleeps_again(guest)
    answer = guest.run(f"busctl call {MACHINE} TestWake u 10800", check=False)
    lab.row("refused: three hours", answer, "failed" in answer)


CASES = (weekend, delayed, refused, without_cec, foreign, summer, recording, bad_file, television,
         clockless, trial)
