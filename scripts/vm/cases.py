"""The cases, in the order in which they run."""
import json
import re
import time

import client_cases
import kill_cases
import night_cases
import platform_cases
from guest import LEAD
from laboratory import HOOK_LATE, TELEVISION_LATE, WAKE_LATE

def install(lab):
    guest, listed = lab.install()
    lab.row("the README's lines", f"{len(listed.splitlines()) - 1} timers are listed",
            re.search(r" 07:00 .*weekdays", listed) and re.search(r" 22:00 .*daily", listed))
    state = guest.run("systemctl is-active dravel-manager", check=False)
    lab.row("the daemon runs", state, state == "active")
    viewer = guest.run("runuser -u viewer -- dravelctl list")
    lab.row("an ordinary user lists the timers", f"{len(viewer.splitlines()) - 1} timers",
            viewer == listed)
    checked = guest.run("runuser -u viewer -- dravelctl check", check=False)
    problems = re.findall(r"^problem (.*?):", checked, re.MULTILINE)
    lab.row("and finds that it is none of the group, and no other fault", ", ".join(problems),
            problems == ["Group"])
    errors = guest.run("journalctl -q -b -p err -u dravel-manager -o cat")
    lab.row("the journal has no error of ours", errors or "none", not errors)
    exposure = guest.run("systemd-analyze security dravel-manager --no-pager | tail -n 1")
    level = float(re.search(r": ([\d.]+)", exposure)[1])
    lab.row("the unit is hardened: exposure below 2", f"{level}", level < 2)
    lab.keep(guest)


def suspend(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:00")
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
    lab.credited(timer, shown)


def off(lab):
    guest = lab.guest()
    guest.set_clock("06:58:52")
    off_timer = guest.add("--at 06:59 --type off --on daily")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    guest.await_sleep(60, 4)
    woken = guest.await_wake_up(60)
    lab.row("the machine sleeps by itself", "asleep", True)
    lab.on_time("after an off-timer", guest.await_expiry(off_timer, 30), guest.seconds("06:59"))
    lab.on_time("which sends the television to standby", guest.await_television("standby"),
                guest.seconds("06:59"), TELEVISION_LATE)
    lab.on_time("woken for the next on-timer", woken, due - LEAD, WAKE_LATE)
    lab.on_time("which fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)


def wakeup(lab):
    guest = lab.guest()
    guest.run("systemctl enable hook.service")
    guest.television_off()
    guest.set_clock("06:59:00")
    timer, due = guest.add("--at 07:00 --type wake-20"), guest.seconds("07:00")
    guest.suspend()
    lab.on_time("a timer of another type: woken", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("it fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the unit hooked to dravel-wakeup@20.target runs",
                guest.await_journal("hook.*the hook has run", 10)[0], due, HOOK_LATE)
    lab.sleeps_again(guest)


def early(lab):
    guest = lab.guest()
    guest.set_clock("06:59:00")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    guest.suspend(15)
    woken = guest.wake()
    lab.row("woken by its user", f"{due - woken:.0f} s before the on-time", woken < due - LEAD)
    shown = guest.type("dravelctl wakeup")
    lab.not_credited("no timer is credited", shown)
    lab.on_time("the on-timer still fires", guest.await_expiry(timer, 60), due)
    shown = guest.run("dravelctl wakeup")
    lab.not_credited("no timer is credited", shown)


def halted(lab):
    guest = lab.guest()
    guest.television_off()
    guest.set_clock("06:59:00")
    guest.type("dravelctl halt on")
    timer, due = guest.add("--at 07:00 --on daily"), guest.seconds("07:00")
    guest.suspend()
    lab.on_time("on-timers are halted: woken", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("the timer is announced", guest.await_expiry(timer, 30), due)
    lab.sleeps_again(guest)


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
    guest.run(f"timedatectl set-ntp false && timedatectl set-time '{lab.day} 08:59:00'")
    guest.mark()
    guest.suspend()
    lab.on_time("both clocks are set to 08:59:00 by hand: it wakes the machine",
                guest.await_wake_up(40), guest.seconds("09:00") - LEAD, WAKE_LATE)


def poweroff(lab):
    guest = lab.guest()
    guest.run("apt install polkitd", 300)
    guest.run("systemctl enable television && echo OPTIONS=--standby >/etc/default/television")
    guest.configure("off-action = poweroff", "return-to-sleep = 0")
    guest.set_clock("06:55:50")
    guest.add("--at 06:56 --type off")
    timer, due = guest.add("--at 07:00 --on daily"), guest.seconds("07:00")
    guest.await_television("standby", 30)
    guest = lab.reboot(guest, f"{lab.day}T05:58:30", is_off=True)
    lab.row("off-action = poweroff, polkit installed", "the machine was off", True)
    lab.on_time("booted at the time of its alarm: the timer fires", guest.await_expiry(timer, 90),
                due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)
    shown = guest.run("dravelctl wakeup")
    lab.credited(timer, shown)
    guest = lab.reboot(guest, f"{lab.day}T10:00:00")
    shown = guest.run("dravelctl wakeup")
    lab.not_credited("booted at another time: no timer is credited", shown)
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
    lines = guest.journal("DRAVEL_LINUX.*real-time clock")
    lab.row("no real-time clock: one line", lines[0][1].split(": ", 1)[1] if lines else "none",
            len(lines) == 1)
    shown = json.loads(guest.run("dravelctl status --json"))["machine"]["screen_by"]
    lab.row("no CEC adapter: the screen is that of the targets", shown, shown == "targets")
    lab.on_time("the daemon works on", guest.await_expiry(timer, 30), due)


def local(lab):
    guest = lab.guest()
    guest.television_off()
    guest.run("timedatectl set-local-rtc 1")
    guest.set_clock("06:59:00")
    timer, due = guest.add("--at 07:00"), guest.seconds("07:00")
    ahead = guest.rtc_now() - guest.now()
    lab.row("the real-time clock counts local time", f"{ahead:.0f} s ahead of UTC", ahead > 3590)
    guest.suspend()
    lab.on_time("the alarm wakes", guest.await_wake_up(30), due - LEAD, WAKE_LATE)
    lab.on_time("the on-timer fires on its second", guest.await_expiry(timer, 30), due)
    lab.on_time("the television is turned on", guest.await_television("on"), due, TELEVISION_LATE)


def upgrade(lab):
    guest = lab.guest()
    guest.set_clock("06:00:00")
    guest.add("--at 09:00 --on daily")
    timers, ours = guest.timers(), guest.seconds("09:00") - LEAD
    theirs = ours + 3600

    def stands(asked, alarm):
        shown = guest.alarm()  # both clocks were set, not at once
        lab.row(asked, guest.text(shown) if shown else "none", abs(shown - alarm) < 5)

    def listed(asked):
        kept = guest.timers()
        lab.row(asked, f"{len(kept)} timers", kept.keys() == timers.keys())

    guest.run("dpkg-deb -R build/*.deb next && sed -i 's/^Version: .*/Version: 99/' "
              "next/DEBIAN/control && dpkg-deb -b next build/next.deb")
    guest.run("apt install ./build/next.deb", 300)
    version = guest.run("dpkg-query -W -f '${Version}' dravel-manager")
    lab.row("the next version is installed", version, version == "99")
    listed("an upgrade keeps the timer")
    stands("and its alarm", ours)
    guest.run("apt remove dravel-manager", 120)
    stands("removed: no alarm of ours", 0)
    guest.run("apt install ./build/next.deb", 300)
    listed("installed again: the timer is back")
    stands("and its alarm", ours)
    guest.set_foreign_alarm(theirs)
    guest.run("systemctl reload dravel-manager")  # the device is read
    stands("another program sets a later alarm: ours stands", ours)
    guest.run("apt purge dravel-manager", 120)
    stands("purged: the other program's is put back", theirs)
    left = guest.run("ls -A /opt/dbspace /var/lib/dravel-manager 2>/dev/null", check=False)
    lab.row("and no file is left", left or "none", not left)


ALL = (install, suspend, off, wakeup, early, halted, skipped, clocks, local, poweroff, missing,
       upgrade, *client_cases.CASES, *platform_cases.CASES, *kill_cases.CASES, *night_cases.CASES)
CASES = {case.__name__: case for case in ALL}
NAMED_ONLY = [case.__name__ for case in night_cases.CASES]
