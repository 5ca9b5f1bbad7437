// What a person at the shell gets from dravelctl, and from the clients that docs/client.md gives.
#include "daemon.h"

#include <glib.h>

#include <sstream>

namespace {

const std::string kHelpers =
    "bus_conf=" BUS_CONFIGURATION "\nschema=$(dirname " INTROSPECTION_XML ")/dravelctl.schema.json"
    R"sh(
daemon=org.olvara.tv.system.dravel
object=/org/olvara/tv/system/dravel
ctl() { dravelctl --timeout ${wait:-9} "$@"; }
add() { ctl add --at "$@"; }
holidays() { ctl holidays "$@"; }
ids() { sqlite3 $1 'SELECT timer_id FROM dravel'; }
standin="/org/olvara/tv/standin org.olvara.tv.standin"
noon=1797336000 # 2026-12-15 12:00
lose_clock() { busctl set-property $daemon $standin TvClock u 0; }
set_clock() { busctl set-property $daemon $standin TvClock u $1; busctl call $daemon $standin TimeSet; }
asleep() { for what in Standby Wakeup; do busctl call $daemon $standin $what i 0; done; }
in_berlin() { # with the clock set by the network: the set's alarm is in UTC
  busctl set-property $daemon $standin TimeZone s Europe/Berlin
  busctl set-property $daemon $standin ClockMode i 0
}
bus=org.freedesktop.DBus
signal() { kill -$1 $(busctl call $bus / $bus GetConnectionUnixProcessID s $daemon | cut -d' ' -f2); }
simulated() { # a service of the system, and what is asked of its simulation
  name=$1; shift; busctl call org.freedesktop.$name /org/freedesktop/$name $bus.Mock "$@"
}
unit() { # in such a state stands for all units: each wants it
  systemd=org.freedesktop.systemd1
  simulated systemd1 AddMethod sssss $systemd.Manager LoadUnit s o 'ret = dbus.ObjectPath("/u")'
  simulated systemd1 RemoveObject s /u || :
  simulated systemd1 AddObject 'ssa{sv}a(ssss)' /u $systemd.Unit 2 \
    Wants as 1 dravel-screen-ddc.service ActiveState s $1 0
}
ability() { # to suspend
  simulated login1 AddMethod sssss org.freedesktop.login1.Manager CanSuspend '' s "ret = '$1'"
}
network() { # has set the clock, or may do so
  simulated timedate1 UpdateProperties 'sa{sv}' org.freedesktop.timedate1 1 $1 b true
}
fake() { # a program of that name with such a script
  printf '#!/bin/sh\n%s\n' "$2" >$1; chmod +x $1; PATH=$PWD:$PATH
}
D='DTSTART;VALUE=DATE'
ics() { # a calendar of such events
  printf 'BEGIN:VCALENDAR\n'; printf 'BEGIN:VEVENT\n%b\nEND:VEVENT\n' "$@"; echo END:VCALENDAR
}
three() {
  ctl holidays add 12-17 12-18; add 19:00 --type off; add 7:00 --on mon-fri --holidays skip
  add '2026-12-24 18:00'; ctl halt off
}
eighty() { # mon, at 7:00
  for i in $(seq 80); do
    busctl call $daemon $object $daemon schedule_timer iiiiiiiiiiiiiii \
      0 2 0 0 126 11 21 7 0 0 1 354 0 0 0
  done
}
one_period() { # a second one is not stored
  sqlite3 /opt/dbspace/.dravel.db 'CREATE TRIGGER t BEFORE INSERT ON disabled_period WHEN
    (SELECT count(*) FROM disabled_period) BEGIN SELECT raise(FAIL, "no"); END'
}
backup() { mkdir b; add 7:00; ctl backup b; add 8:00; }
edited() { # with status 0 when nothing is imported
  (add 7:00 --on mon; ctl holidays add 12-24; ctl export >x; ctl cancel 1; ctl holidays remove 1)
  sed "$1" x | ctl import - || ctl export | tr -d ' \n' | grep -qFx '{"timers":[],"holidays":[]}'
}
until_told() { while read -r line <&3 && echo "$line"; do case $line in *$1*) return; esac; done; }
start_monitor() {
  mkfifo /run/bench/told$$; timeout --foreground 9 dravelctl monitor "$@" >/run/bench/told$$ 2>&1 &
  exec 3</run/bench/told$$; until_told 'is running'
}
told() { until_told "$1"; kill $!; wait $!; }
fits() { # says what of the document that the rest prints is not as the schema of that name has it
  name=$1; shift
  dravelctl "$@" -j | tr '\n' ' ' | document_fits | sed "s/^/$name: /"
}
document_fits() {
  /usr/bin/python3 -c '
import json, jsonschema, sys
schema = json.load(open(sys.argv[1]))
for line in list(sys.stdin) or [""]:
    jsonschema.validate(json.loads(line), {**schema, "$ref": "#/$defs/" + sys.argv[2]})
' $schema "$name" 2>&1
}

# --- what stands in the daemon's place ---
method() { # with its arguments, its reply and what that is
  busctl call $daemon $object $bus.Mock AddMethod sssss $daemon $1 $2 $3 "ret = $4"
}
denied() { # a method with its arguments
  method $1 $2 i "(_ for _ in ()).throw(dbus.DBusException('no', name='$bus.Error.AccessDenied'))"
}
of() { echo "[byte for word in $1 for byte in (word, 0, 0, 0)]"; }
put() { # an object and so many properties
  name=$1; shift
  busctl call $daemon $object $bus.Mock RemoveObject s $object/$name 2>&- || :
  busctl call $daemon $object $bus.Mock AddObject 'ssa{sv}a(ssss)' $object/$name $daemon.$name "$@" 0
}
older() { # timer 1, off at 1:00, and timer 2, on at 7:00 but on holidays, which are all days
  method request_timer_list i iay \
    "(2, $(of '[1,1,0,0,0,0,1,1,0,130]+6*[0]+[127,0,0,2,0,0,0,0,0,7,1,0,130]+6*[0]+[127,1,0]'))"
  method request_disabled_period_list i iay "(1, $(of '[0,0,0,1]+10*[0]+[31,11]+8*[0]+[1]'))"
  method request_get_timers_halt_effect i ii '(0, 1)'
}
newer() { # whether the clock is confirmed; when timer 2, wake-20 at 7:00 on 16 December, is armed
  for reply in timer_list wakeup_timer; do
    method request_$reply i iay "(0, $(of '[2,2,0,0,0,0,7,16,11,126]+9*[0]'))"
  done
  method request_disabled_period_list i iay '(0, dbus.Array([], signature="y"))'
  method cancel_timer i i -1
  put state 4 Clock u $noon ClockConfirmed b $1 Platform s linux Armed 'a(iu)' ${2:+1 2} ${2:-0}
}
machine() { # which follows an order for its screen, now on or as given, with such Python
  put machine 8 Screen s ${2:-on} ScreenBy s 'cec0 1.0.0.0' Alarm t $((noon + 68400)) AlarmFor s foreign \
    LastWake '(ts)' $((noon - 18000)) hop SleepsAt t $((noon + 1800)) Postponed s 'a download' \
    Problems as 2 'one thing' '/etc/dravel-manager.conf: x'
  busctl call $daemon $object/machine $bus.Mock AddMethod sssss $daemon.machine TurnScreen b '' "$1"
}
screen="self.UpdateProperties('$daemon.machine', {'Screen': 'on' if args[0]"
wakes() { # so many seconds after now, for a cause, after such Python
  put machine 1 LastWake '(ts)' $(($(date +%s) + $1)) test
  busctl call $daemon $object/machine $bus.Mock AddMethod sssss $daemon.machine TestWake u us \
    "${3:-}ret = (dbus.UInt32(57), '$2')"
}

# --- the journal ---
ago() { echo $(($(date +%s) - $1 * 3600)); }
entry() { # hours ago, user, message, fields
  at=$(ago $1) user=$2 message=$3; shift 3
  printf '__REALTIME_TIMESTAMP=%s000000\n__MONOTONIC_TIMESTAMP=1\n_UID=%s\nMESSAGE=%s\n' $at $user "$message"
  printf '_BOOT_ID=0123456789abcdef0123456789abcdef\n'; printf '%s\n' "$@" ''
}
event() { # hours ago, user, message, event, timer, reason
  entry "$1" $2 "$3" MESSAGE_ID=b9e79bcbc9524559903a405a6561a87d DRAVEL_EVENT=$4 \
    ${5:+DRAVEL_TIMER=$5} ${6:+DRAVEL_REASON=$6}
}
night() { # in ./j: the last three days
  mkdir j; {
    event 70 0 'the machine is sent to sleep: suspend' sleeping '' suspend
    event 30 0 'timer 3 does not act: timers of its kind are halted' halted 3
    event 20 1000 'timer 3 has fired' fired 3
    entry 10 0 'Stopped dravel-manager.service.' UNIT=dravel-manager.service \
      MESSAGE_ID=9d1aaa27d60140bd96365438aad20286
    entry 9 0 'Stopped cron.service.' UNIT=cron.service MESSAGE_ID=9d1aaa27d60140bd96365438aad20286
    event 2 0 'timer 4 is removed: past' removed 4 past
  } | /lib/systemd/systemd-journal-remote -o j/system.journal - 2>&1
}
past() { ctl history --journal j "$@"; }

# --- files ---
file() { # the timers, holidays and other members
  echo "{$3\"timers\":[$1],\"holidays\":[$2]}" >x
}
seven='{"type":0,"time":"07:00","days":["Mon"]}'
off='{"type":1,"at":"2026-12-24T22:00:00"}'
christmas='{"first":{"month":12,"day":24},"last":{"month":12,"day":25}}'
boxing='{"first":{"month":12,"day":26},"last":{"month":12,"day":26}}'
year='{"first":{"month":1,"day":1},"last":{"month":12,"day":31}}'
once='{"type":1,"holidays":"skip","at":"2026-12-24T22:00:00"}'
)sh";

class Ctl : public daemon_test {
protected:
  // Each line is a step on a daemon of its own: what went before, the line at the shell, its
  // status, what it says and what it does not say, as "[before -> ]line => 0 said[ =/> not
  // said]". In what it says " ... " stands for what varies.
  void check(const std::string &steps) {
    constexpr const char *kStep = "^(?:(.*) -> )?(.*) => ([0-9]) (.*?)(?: =/> (.*))?$";
    std::istringstream lines(steps);
    std::string more;
    for (std::string line; std::getline(lines >> std::ws, line);) {
      for (; line.ends_with('\\') && std::getline(lines >> std::ws, more); line += more)
        line.pop_back();
      SCOPED_TRACE(line);
      g_auto(GStrv) step = g_regex_split_simple(kStep, line.c_str(), {}, {});
      ASSERT_GE(g_strv_length(step), 6U);
      ASSERT_EQ(shell("rm -rf " SHELL_DIRECTORY).status, 0);
      begin_step();
      const outcome before = shell(kHelpers + step[1]);
      EXPECT_EQ(before.status, 0) << before.said;
      const outcome result = shell(kHelpers + step[2]);
      EXPECT_EQ(std::to_string(result.status), step[3]) << result.said;
      g_autofree char *said = g_strcompress(step[4]);
      g_auto(GStrv) parts = g_strsplit(said, " ... ", -1);
      g_autofree char *in_order = g_strjoinv("*", parts);
      g_autofree char *pattern = g_strdup_printf("*%s*", in_order);
      EXPECT_TRUE(g_pattern_match_simple(pattern, result.said.c_str())) << result.said;
      g_autofree char *not_said = g_strcompress(step[5]);
      if (*not_said != '\0') {
        EXPECT_THAT(result.said, testing::Not(HasSubstr(not_said)));
      }
      end_step();
    }
  }

private:
  virtual void begin_step() {
    empty_store();
    start();
  }
  virtual void end_step() { EXPECT_EQ(stop(), 0); }
};

TEST_F(Ctl, WordsOfTheLine_AreUnderstood_AndNonsenseIsRefused) {
  check(R"steps(
    add 7:00 => 0 Next firing: Wed 2026-12-16 07:00:00, in 19 hours =/> Note
    add '2026-12-24 18:00' --type always => 0 Thu 2026-12-24 18:00:00 =/> Each
    add now => 0 Tue 2026-12-15 12:01:00
    add 'tue 12:00:01' => 0 Next firing: Tue 2026-12-22 12:00:00
    add 2026-12-24T18:00 => 0 to the next 18:00. ... than a week ahead with --on Thu,
    add 13:00 -> add '2026-12-21 18:00' => 0 and moves it to Tue 2026-12-15 18:00:00. Each =/> less than
    add '2026-12-24 7:00' --on mon => 2 does not repeat; give --at a time of day alone, or leave --on out
    add 7 --on mon -> ctl change 1 --at 'tomorrow 9:00' => 2 time of day alone, or add --on once\n
    add 'fri 7:00' --on mon => 2 a timer for a date does not repeat
    add 7:00:05 => 0 On-timers ignore seconds.
    add 7:00:05 --on mon => 0 07:00:05 ... ignore seconds on the day itself: this one may fire at 07:00;
    add 7:00 --on daily --type transient-off => 0 fires once, whatever its days
    add 7:00 --type transient-off => 0 Timer -10 is added =/> whatever its days
    add 7:00 --on monday --on sat,sun => 0 Days: Mon,Sat,Sun
    add 7:00 --on mon, tue => 2 add does not take tue; put the days in quotes: --on "mon, tue"
    add fri 20:00 --type off => 2 add does not take 20:00; put the time in quotes: --at "fri 20:00"\n
    ctl add --at=2026-12-24 18 => 2 put the time in quotes: --at "2026-12-24 18"\n
    ctl change 1 --at next fri 8pm --on once => 2 not take fri; put the time in quotes: --at "next fri 8pm"\n
    ctl change --at tomorrow 9:00 1 => 2 put the time in quotes: --at "tomorrow 9:00"\n
    ctl history --since yesterday 20:00 => 2 put the time in quotes: --since "yesterday 20:00"\n
    add 7 --on mon -> ctl change --at 8 1 => 0 Days: Mon\n
    add 25:00 => 2 --at=25:00 is no time; write 7:00
    add 'next fri'; add ''; add next => 2 --at=next fri has no time of day; write it as in --at "next fri 7:00"\n \
       ... --at= is no time; ... --at=next is no time;
    add 7:00 --on '' => 2 --on= is not understood; write mon
    add 7:00 --type 300 => 2 --type=300 is not understood
    add 7:00 --priority high => 2 --priority=high is not understood
    add 7:00 --priority +5 => 0 Priority: 5
    add 7:00 --on once --on mon => 2 --on=once goes with no other --on; give once alone
    add "$(printf '7:00\n\033[m')" => 2 --at=7:00??[m is no time
    day=$(( $(date -ud '1 hour' +%-j) - 1 )); set_clock $(date +%s); \
      export TZ=AAA0BBB-1,$day/$(date -ud '1 hour' +%T),$(( (day + 30) % 365 )); \
      add +3h --type off; add +1d --type off => 0 in 3 hours\n ... , in 23 hours\n
    day=$(( $(date -ud '30 minutes' +%-j) - 1 )); set_clock $(date +%s); \
      export TZ=AAA0BBB-1,$(( (day + 335) % 365 )),$day/$(date -ud '30 minutes' +%T); \
      add +10min --type off -j; ctl overview; ctl explain 1 -j => 0 +00:00", ... +00:00", =/> +01:00
    lose_clock -> add +45m => 0 +45m is counted from this machine's clock,
    ctl add => 2 add needs --at
  )steps");
}

TEST_F(Ctl, Add_TellsWhyATimerIsRefused_AndWhatBecomesOfOneThatIsNot) {
  check(R"(
    add '2026-12-15 11:59' --check => 1 has passed
    add '2026-12-15 11:59' => 1 has passed: the set's clock reads Tue
    add '1999-01-01 7:00' --clock internet => 1 has passed: the system clock reads
    lose_clock -> add '2026-12-24 7:00' => 0 not armed\n        Days: once\n     Set for: Thu 2026-12-24 07 ... \
      Holidays: ignore: fires on them too\nNote: The set's clock is unknown: the timer =/> counted
    ctl show '' => 2 '' is no id
    add '2026-12-15 12:00:30' => 1 on-timers ignore seconds
    add '2027-12-15 12:01' => 1 is more than 365 days ahead
    add 7:09 -> add 7:00 --type standby => 1 a standby timer is then left
    eighty; file $off -> add 8 --check --force; add 8 --force; add 9; ctl import x --force => 0 \
      Timer 1 (on, Mon) would be removed ... Note: Timer 1 (on, Mon) was removed ... not added: there \
      are 80 timers, and timer 2 (on, Mon) would ... timers[0]: Timer 2 (on, Mon) was removed
    mkdir b; ctl backup b; ctl restore b -> add 7:00 => 1 refused the timer; its log
    add 7:00 --check; ctl list => 0 would be added:\n       Timer: new ... firing: Wed 2026-12-16 07 =/> \n1
    add 7 --type off --on daily -> add 7 --check; add 7 => 0 \n Next firing: not armed\n ... \
      It would not be armed: off-timer 1 ... It is not armed: off-timer 1 is set for =/> certain
    add 7 --type off; add 8 -> ctl change 2 --at 7 --check => 0 It would not be armed: off-timer 1
    add 7 -> add 7 --type off --check -j => 0 "notes":["Timer 1 would not be armed any more: the new
    add 7 -> add 7 --type off -j => 0 "notes":["Timer 1 is not armed any more: off-timer 2 is
    add 13; add 23 --type off -> add 23 --check; add 23 => 0 firing: Tue ... firing: Tue
    add 7:00 --on mon -> add 7:00 --on daily => 0 It and timer 1 are due ... only one ... another minute.
    for h in 7 8 9; do add $h:00; done -> ctl cancel 1 3 3 && ctl list => 0 \n2   on =/> \n1
    add 7:00 -> ctl cancel 1 9 => 1 there is no timer 9 =/> is cancelled
    add 7:00 --type 10 -> ctl cancel -10 --json => 0 {"cancelled":-10,"timer":{"type":10,"at":"2026-12-16T07
    add 7:00; add 8:00 -> ctl rm --all; ctl ls => 0 No timers.
    ctl rm --all => 0 No timers.
    ctl rm --all -j; echo end => 0 end =/> No
    ctl cancel => 2 cancel needs ID
    ctl cancel 1 --all => 2 --all goes with no ID
    ctl remove all => 2 all is no id; write it as in dravelctl cancel 3 5, or dravelctl cancel --all
    ctl cancel 1,2; ctl cancel 2-5 => 2 1,2 is no id; give ids with ... 2-5 is no id; give ids with
  )");
}

TEST_F(Ctl, Holidays_AndChanges_TellWhatTheyMove) {
  check(R"(
    ctl change 1 => 2 change needs what to change
    add 7 --type 13 -> ctl change 1 --priority 3 => 0 Timer 2 takes the place of timer 1.
    add '2026-12-24 7:00' -> ctl change 1 --at now --type off => 0 Tue 2026-12-15 12:00:02
    holidays add 02-20 02-28 --end-of-february => 0 20 Feb to end of Feb
    holidays add 12-24 02-30; holidays add x => 2 02-30 is no date of ... x is no date of the year
    holidays add 03-01 --end-of-february => 2 --end-of-february needs 02-28
    add 7 --on daily --holidays skip; holidays add 12-16 12-17 -> holidays ignore 1; holidays => 0 \
      Timer 1 ignores holidays.\nNote: Timer 1 is now armed for Wed 2026-12-16 07:00:00; it was armed \
      for Fri 2026-12-18 07:00:00.\nID  FIRST DAY  LAST DAY\n1   16 Dec     17 Dec\n
    holidays add 12-24; sqlite3 /opt/dbspace/.dravel.db 'CREATE TRIGGER x BEFORE DELETE ON disabled_period BEGIN \
      SELECT RAISE(FAIL, ""); END' -> holidays remove 1 => 1 refused to remove holidays 1; its log =/> are removed
    add 7; add 8 -> holidays skip --all => 0 Timer 1 skips holidays.\nTimer 2 skips holidays.
    add 7 -> holidays skip -j 1 => 0 {"id":1,"holidays":"skip",
    holidays add 12-24 -> holidays rm 1 => 0 Holidays 1 are removed.
    holidays add 01-01 12-31 -> add 7:00 --on daily --holidays skip => 1 holidays cover every day
    holidays add 12-16 -> add 7:00:30 --holidays skip => 0 from Wed 2026-12-16 07:00:30 to Thu 2026-12-17 07:00:00
    add '2026-12-24 18:00' -> holidays add 12-26 => 0 now armed for Tue 2026-12-15 18:00:00; it was armed for Thu
    eighty; ctl change 50 --on tue -> ids /opt/dbspace/.dravel.db | sed -n '1p;$=' => 0 1\n80\n
    eighty; ctl cancel 9; add +50s --type off -> ctl change 81 --at 14 => 1 due within a minute, and
    eighty; mkdir b; ctl backup b; ctl restore b -> ctl change 50 --on tue => 1 timer 50 is cancelled
    add '2026-12-24 18:00' -> ctl change 1 --at 19:00 => 0 Set for: Thu 2026-12-24 19:00:00
    add 7:00 -> ctl change 1 --at 8 --check; ctl list => 0 This timer would take =/> 08:00\n
    add 7:00 --on daily -> holidays add 01-01 12-31; holidays skip 1 => 0 Timer 1 is now removed;
    add 7:00 --type off --priority -3 --holidays skip; ctl change 1 --on tue -> ctl list -j => 0 \
      "at":"2026-12-22T07 ... "days":["Tue"],"priority":-3,"delay":0,"holidays":"skip" =/> "id":1
    add 7 -> ctl change 1 --at '2026-12-14 7:00'; ctl show 1 => 0 not changed: Mon ... Set for: Wed
    add 7:00 -> holidays skip 1 9 => 1 there is no timer 9 =/> skips
    holidays add 12-24 -> holidays remove 1 9 => 1 no holidays 9 =/> are removed
    holidays add 12-24; holidays add 12-24 => 1 No timer skips holidays ... these days are holidays 1 already
    add 7:00; holidays add 12-24 -> holidays add 12-24 --all; ctl list => 0 holidays 1 already.\nTimers ... no holidays
    holidays add 12-26 12-24 --all => 0 Note: These are 364 days of each year.\n
    holidays add 01-01 03-31 --all => 0 Timers that skip them =/> days of
    add 7:00 -> holidays add 12-20 01-06 --all; ctl list => 0 Holidays 1 are added: 20 Dec to 31 Dec.\n\
      Holidays 2 are added: 1 Jan to 6 Jan. ... no holidays =/> No timer
    one_period -> holidays add 12-20 01-06 => 1 ; added before: holidays 1
    holidays add 12-20 01-06 -> holidays add 12-20 01-06 => 1 these days are holidays 1 and 2 already
    holidays add 01-01 01-06 -> holidays add -j 12-20 01-06 => 0 "added":[{"id":2,"first":{"month":12,
    add '2026-12-24 18:00' --holidays skip -> ctl -j holidays add 12-24 => 0 "moved":[{"id":1,"was":"2026-12-24 ... "now":"2026-12-15
    holidays remove x => 2 x is no id; dravelctl holidays list shows the ids
    ctl -j holidays add -- 12-24 12-26 => 0 "first":{"month":12,"day":24,
  )");
}

TEST_F(Ctl, TheState_IsShown) {
  check(R"steps(
    three -> ctl status => 0 Clock: Tue 2026-12-15 12:00:00 (UTC, UTC+00:00), confirmed\n      Halted: \
      off-timers\n      Timers: 3 of 80\n     Next on: Wed 2026-12-16 07:00:00, in 19 hours: timer 2 \
      (on, weekdays)\nNext wake-up: none\n    Next off: Tue 2026-12-15 19:00:00, in 7 hours, halted: \
      timer 1 (off, once)\n   Wakes for: timer 2, at Wed 2026-12-16 07:00:00\n    Woken by: no timer\n \
       ... Platform: standin\n
    asleep -> ctl; ctl -j => 0 Problem: The set's clock is not confirmed ... ), not confirmed ... "clock_confirmed":false
    in_berlin; add 7 -> export TZ=CET-1; ctl; ctl -j => 0 timer 1, at Wed 2026-12-16 06:00:00 UTC\n ... \
      "wakeup":{"id":1,"type":0,"at":"2026-12-16T07:00:00+01:00",
    three -> ctl status -j => 0 "halted":{"on":false,"off":true},"timers":3,"limit":80,
    ctl halt on off; ctl => 0 On-timers: halted\nOff-timers: halted\n ... Halted: on- and off-timers\n
    ctl halt both; ctl halt on none; ctl => 0 \nOff-timers: halted\n ... \nOff-timers: active\n ... Halted: on-timers\n
    ctl halt both; ctl halt none; ctl halt off -j => 0 \nOff-timers: active\n{"on":false,"off":true}
    ctl halt up => 2 halt takes no up; give
    TZ=NST3:30 ctl => 0 (NST, UTC-03:30)
    add 7 -> for is in NO_COLOR=1 TERM=dumb TERM=xterm; do TERM=xterm script -qc "export $is; dravelctl \
      list" /dev/null | grep -c 1mID; done => 0 0\n0\n1\n
    eighty -> ctl; ctl -j => 0 Timers: 80 of 80, adding one removes another\n ... "full":true
    add 7:00; add 6:00 -> ctl => 0 Next on: Wed 2026-12-16 06:00:00
    add 7:00 --type 2 -> ctl => 0 Next on: none\nNext wake-up: Wed 2026-12-16 07:00:00, in 19
    eighty; add 6:00 --type 10 -> ctl status => 0 Timers: 81, adding one removes another
    lose_clock -> ctl => 0 Problem: The set's clock is unknown: no timer is armed.\n       Clock: unk
  )steps");
}

TEST_F(Ctl, TimersAndTheOverview_AreListed) {
  check(R"steps(
    three -> ctl list => 0 Tue 2026-12-15 19:00  7 h   once      halted
    three -> ctl list --on-timers --day wed => 0 \n2   on =/> \n3
    three -> ctl list --on-timers --day sun => 0 No such timers.
    add 7 -> ctl list --off-timers => 0 No such timers.
    three -> ctl list --day once => 0 \n3   on =/> \n2
    add 8 --type wake-20 --on mon,wed,fri --holidays skip; add 9:00:01 --type 10; ctl halt both -> \
      ctl list | grep '.\{81\}' || ctl list => 0 20 h  Mon,Wed,Fri  halted, no holidays\n
    add 7 --on daily -> script -qc 'dravelctl explain 1' /dev/null | grep -c '.\{82\}' => 1 0
    add 7 -> echo n | script -qc 'dravelctl cancel --all' /dev/null; ctl list => 0 nothing is cancelled =/> No
    add 7 -> echo Y | script -qc 'dravelctl cancel --all' /dev/null => 0 Timer 1 is cancelled.
    add 7 --on mon,tue,thu,fri,sun --holidays skip --priority 5 --type wake-20; ctl halt on -> \
      script -qc 'dravelctl list; dravelctl types' /dev/null | grep -c '.\{82\}' => 1 0
    three -> ctl list --off-timers => 0 \n1   off =/> \n2
    three; add 8 --type announce -> ctl list --off-timers --on-timers | wc -l => 0 5\n
    add 7 --type 200 --priority 3 --clock rtc --holidays skip -> ctl list; ctl show 1 => 0 \
      once  no holidays, priority 3, rtc\n ... Type: 200 (200): wakes a sleeping set and is announced\n \
      ... Set for: Wed 2026-12-16 07:00:00\n       Clock: rtc\n    Priority: 3\n    Holidays: skip:
    add 7 --type announce -> ctl halt both; ctl list => 0 once\n
    three -> ctl overview => 0 ,"timers":[{"id":1,"type":1,"type_name":"off","title":"timer 1 (off, \
      once)","days_text":"once" ... {"date":"2026-12-17","holidays":[1]} ... "mark":"off","halted":true, ... \
      {"first":"2027-12-17","last":"2027-12-18"}],"skipped_by":[2]}
    holidays add 12-24; add 7 --type always --holidays skip -> ctl overview => 0 "text":"24 Dec","dates":\
      [{"first":"2026-12-24","last":"2026-12-24"},{"first":"2027-12-24" ... "skipped_by":[]}
    holidays add 02-29 --end-of-february -> ctl overview => 0 "end of Feb","dates":[{"first":"2026-02-28"
    add 7:00 --type off; add 7:00 -> ctl overview => 0 "notes":["It is not armed: off-timer 1
    add 7:00; add 7:00 --on daily -> ctl overview => 0 "notes":["Timers 1 and 2 are due in the same
    lose_clock; add 7:00 -> ctl overview => 0 "week":null,
    ctl overview => 0 "change":true,"screen":"the platform of this ... "machine":null,"problems":[]}
    ctl screen on; ctl test wake; ctl test screen => 1 no machine; only ... no machine ... no machine
    add 7 --on daily; add 7 --type off --on daily -> ctl -j week => 0 "mark":"both","halted":false,"passed":[1]
    add 7 --type 2 -> ctl -j week => 0 "mark":"wake"
    ctl types; ctl types -j => 0 \n1       off ... {"number":2,"word":"wake-20","meaning":"wakes
  )steps");
}

TEST_F(Ctl, Timers_AreExplained) {
  check(R"steps(
    three -> ctl explain => 0 Off-timers are halted: it is announced and does nothing else. ... \
      Tue 2026-12-15 is passed over: its time of day has passed.\nThu 2026-12-17 to Fri 2026-12-18 are \
      passed over: holidays 1.\nIt fires next on Wed 2026-12-16 07:00:00, in 19 hours.\nAfter that it \
      fires on Mon 2026-12-21 07:00:00, Tue ... on Tue 2026-12-15 19:00:00, and moves it to Wed 2026-12-16 \
      18:00 ... for timer 2: it is the earliest on-timer.
    add 7 --type 2 -> ctl explain; ctl halt on; ctl explain => 0 \nIt then wakes the set, reason 20.\nThe \
      simulated set keeps the reason; it turns nothing on.\nA set that is on already ... \nOn-timers are halted:
    add 7 -> ctl explain => 0 \nA set that is on already, or in open ambient mode, only announces it.\n
    add 7 --type off -> ctl explain => 0 \nIn ambient mode ... is woken for nothing: no on-timer is armed.\n
    add 7 --on daily; add 7 --type off --on daily -> ctl explain => 0 : off-timer 2 is ... \nThe set is woken for nothing.\n
    in_berlin; add 7 --on daily; add 7 --on fri --type off; add 7 --on wed --type off -> ctl explain => 0 \
      not woken for timer 1 on Wed 2026-12-16 07:00:00: off-timer 3 is ... woken on Thu 2026-12-17 06:00:00 UTC for timer 1:
    add 7 --on daily; add 7 -> ctl explain => 0 : no on-timer at that second has a higher priority.
    add '2026-12-20 7:09'; add '2026-12-22 7:05' --type standby --holidays skip; add 13:00 -> \
      ctl explain 2 => 0 07:05:00 and skips holidays.\nIt is armed for Tue 2026-12-22 ... \nTimer 3 ... removes it.\n
    add 7:00 --on mon; add 7:00 --on sat-mon -> ctl explain 1 => 0 2027-01-18 07:00:00.\nTimers 1 and 2 are \
      due in the same second, Mon 2026-12-21 07:00:00: only =/> 12-28 07:00:00: only
    add 7:00:05 --type 10 -> add 7:00:05 --type off => 0 whether it does is not certain; choose another second
    add 7:00 --on daily; add 7:00 --priority 1 -> ctl explain -j 1 => 0 "following":[{"at":"2026-12-17
    add 7:00 --on daily; add 7:00 --priority 1 -> ctl explain => 0 it has the highest priority. =/> not woken
    holidays add 12-16; holidays add 12-17; add 7 --on daily --holidays skip -> ctl explain 1 => 0 \
      Wed 2026-12-16 is passed over: holidays 1.\nThu 2026-12-17 is passed over: holidays 2.
    holidays add 12-16 12-18; add 7 --on wed,fri --holidays skip -> ctl explain => 0 to Fri 2026-12-18 are passed
    three -> ctl explain -j 2 => 0 "passed_over":[{"day":"2026-12-15","why":"its ... "why":"holidays 1"}
    for t in 13 14 '2026-12-17 14'; do add "$t:00"; done -> ctl explain 3 => 0 Timers 2 and 3 are due in
    add 7 --on daily --holidays skip; add 8; holidays add 12-16 12-18 -> ctl list => 0 once\n1
    lose_clock; add 0:00 --on daily -> ctl explain 1 => 0 00:00.\nIt is not armed: the =/> It then
  )steps");
}

TEST_F(Ctl, TheWeek_IsDrawn) {
  check(R"steps(
    lose_clock -> ctl week => 1 the set's clock is unknown, so that no week
    for t in 7:00 7:00 8:00; do add $t --type 10; done; add 7 --type off; add 7 --type off -> ctl week => 0 \
      Timers -10, 1 and 2 are due ... : timer -10 fires, and at most one of the others ... another second.
    add 7 --type 2; add 7:10 --type off; add 8 --type 2 -> ctl week => 0      00    03    06    09    12    15    18    21\nTue 2026-12-15 ·······················│···············\
      ·········\nWed 2026-12-16 ··············◆·△·
    three -> ctl week => 0 Wed 2026-12-16 ··············▲·····················▲···········\n
    add 12:10 -> ctl halt both; ctl week => 0 Tue 2026-12-15 ·······················│○···
    three -> LC_ALL=C ctl week => 0 Thu 2026-12-17 ############################## ... # holidays  | now
    three -> ctl week --json => 0 [{"id":1,"type_name":"off","at":"2026-12-15T19:00:00+00
    holidays add 12-20; add '2026-12-20 00:00' --type off -> ctl week => 0 Sun 2026-12-20 ▼░░
    set_clock $((noon + 43200)) -> ctl week => 0 Wed 2026-12-16│·
    add 7:00 --type announce --on wed; add 7:01 --on wed -> LC_ALL=C ctl week => 0 .+...
    add '2026-12-21 23:59:59' --type off -> ctl week => 0 \
      Mon 2026-12-21 ···············································▼\n
    add 0:00 --type off --on tue -> ctl week -j => 0 [] =/> "id"
    ctl explain 9 => 1 there is no timer 9
    ctl wakeup => 0 No timer woke the set.
  )steps");
}

class CtlOnAMachine : public Ctl {
  const simulated_machine machine_{bus};
};

TEST_F(CtlOnAMachine, TheMachine_IsShownAndOrdered) {
  check(R"(
    add 7:00 -> ctl; ctl -j => 0      Problem: The real-time clock refuses the alarm: Inappropriate ... \
      Alarm: none; the real-time clock refuses the alarm: ... "problems":["The real-time clock refuses
    ctl => 0 , by its user\n      Sleeps: not planned\n =/> Problem
    ctl screen on; ctl => 0 The screen is told to turn on.\n ... Screen: on, by dravel-on.target and dr
    ctl screen on; ctl screen off; ctl screen -j => 0 {"ordered":null,"screen":"off","screen_by":"ta
    ctl screen up => 2 screen takes no up; give on or off
    add 7 -> ctl overview => 0 "may":{"change":true,"screen":true,"test":true,"history": ... \
      "last_wake_cause":"user","sleeps_at":null, ... "postponed":"","problems":["the real-time clock
  )");
}

TEST_F(CtlOnAMachine, IsChecked_AndTriedOut) {
  check(R"(
    ctl check => 1 note    Zone: UTC, UTC+00:00: timers are on this time ... ok      Sleep: the machine suspends \
      ... problem Screen: there is no HDMI-CEC adapter, and no unit ... ok      Configuration: /etc =/> problem Alarm
    for can in na no; do ability $can; ctl check; done => 1 Sleep: this machine cannot ... Sleep: this machine cannot
    ability yes -> ctl check => 1 note    NTP: the clock is not set from the network: timers drift
    network NTP -> ctl check => 1 note    NTP: the clock is not yet set from the network
    network NTPSynchronized -> ctl check => 1 ok      NTP: the clock is set
    TZ=CET-1 ctl check => 1 ok      Zone: CET
    add 7:00 -> ctl check => 1 problem Alarm: the real-time clock refuses =/> Machine: the real
    unit failed -> ctl check => 1 problem Hooks: failed: dravel-screen-ddc.service; ... ok      Screen: turned by
    unit active -> ctl check => 0 ok      Hooks: no unit of a target has failed =/> problem
    ctl test screen --seconds 0 => 0 No television answers: look whether the screen was dark.
    ctl test wake => 1 the machine did not sleep: the alarm or the sleep was refused: Inappropriate ioctl
    busctl call $daemon $object/machine $daemon.machine TestWake u 5 => 1 machine cannot sleep for so many seconds
    ctl test wake --seconds 0 => 2 --seconds=0 is no such number of seconds; give one from 20 to 3600
    ctl test screen 30 => 2 test screen does not take 30; write --seconds 30
    ctl test => 2 test needs screen or wake
  )");
}

TEST_F(Ctl, IsChecked_WhereItApplies) {
  check(R"(
    ctl check => 0 ok      Daemon: dravel-manager =/> Alarm
    ctl halt on -> ctl check => 0 note    Halts: timers are announced and do not act: on-timers; dr
    ctl halt off -> ctl check => 0 not act: off-timers; dravelctl halt none
    ctl halt both -> ctl check => 0 not act: on-timers and off-timers; dravelctl halt none
    asleep -> ctl check => 0 note    Clock: Tue 2026-12-15 12:00:00, not confirmed since the set woke up; wait
    lose_clock -> ctl check => 1 problem Clock: it is unknown: no timer is armed; set it
    signal STOP -> wait=0.5; ctl check; status=$?; signal CONT; exit $status => 1 problem Daemon: dr
  )");
}

TEST_F(Ctl, History_TellsWhatTheJournalHas) {
  check(R"steps(
    night -> past | cut -c26- => 0 timer 3 does not act: timers of its kind are halted\n\
      Stopped dravel-manager.service.\ntimer 4 is removed: past\n =/> suspend
    night -> export TZ=CET-9; past --since $(date -ud @$(ago 3) +%FT%T+00:00) => 0  timer 4 is removed =/> Stopped
    night -> export TZ=CET-3; past --since "$(date -d @$(ago 3) '+%F %T')" => 0  timer 4 is removed =/> Stopped
    night -> past 4 => 0  timer 4 is removed: past\n =/> timer 3
    night -> past --since 4d => 0  the machine is sent to sleep: suspend\n
    night -> past 7 => 0 Nothing has happened since
    night -> past -j 3 => 0 ,"event":"halted","timer":3,"reason":"","text":"timer 3 does not act: timers
    night -> export TZ=CET-1; past | grep -c "$(date -d @$(ago 2) '+%F %H:%M')" => 0 1
    night -> export TZ=CET-1; past --since 1970-01-01 => 0  the machine is sent to sleep: suspend\n
    ctl history --since tomorrow => 2 --since=tomorrow is no time that has passed; write yesterday
    mkdir j -> past => 1 there is no journal in j; name a directory
    ctl history --journal /nowhere => 1 the journal in /nowhere cannot be read: No such file
    ctl history x => 2 x is no id
    ctl history 1 2 => 2 history does not take 2
  )steps");
}

TEST_F(Ctl, Copies_AreCheckedBeforeTheyReplaceAnother) {
  check(R"(
    backup -> ctl backup b; ids b/.dravel.db.1 => 0 before is in /run/bench/shell/b/.dravel.db.1.\n1\n =/> 1\n2
    backup -> echo junk >b/.dravel.db; ctl backup b; ls -A b => 0 .dravel.db\n =/> .dravel.db.1
    backup -> echo junk >b/.dravel.db; ctl restore b => 1 is no SQLite database
    backup -> sqlite3 b/.dravel.db 'ALTER TABLE dravel DROP tm_sec'; ctl restore b => 1 no such col
    backup -> sqlite3 b/.dravel.db 'PRAGMA journal_mode=wal'; ctl restore b => 1 has a write-ahead log
    backup -> sqlite3 b/.dravel.db 'PRAGMA user_version=2'; ctl restore b => 1 newer version 2
    backup -> sqlite3 b/.dravel.db 'CREATE VIEW x AS SELECT 1'; ctl restore b => 1 has view x, which is none of
    backup -> sqlite3 b/.dravel.db 'CREATE TRIGGER x DELETE ON dravel BEGIN SELECT 1; END'; ctl restore b => 1 has trigger x
    backup -> printf x | dd of=b/.dravel.db bs=4k seek=1 conv=notrunc; ctl restore b => 1 is damaged
    backup -> ctl restore b; ids /opt/dbspace/.dravel.db => 0 when the daemon starts next =/> 1\n2
    mkdir b; mkfifo b/.dravel.db -> timeout 5 dravelctl restore b => 1 is no regular file
    mkdir b; mkfifo b/.dravel.db -> timeout 5 dravelctl backup b => 0 The timers are in
    mkdir -p b/.dravel.db.new/x -> ctl backup b; ls -A b => 0 \n.dravel.db\n =/> .new
    mkdir b; rm /opt/dbspace/.dravel.db -> wait=0.5 ctl backup b => 1 database up to /run/bench/shell/b, where
    backup -> signal STOP; wait=0.5 ctl restore b; s=$?; signal CONT; exit $s => 1 from /run/bench/shell/b, or may still do so;
    backup -> fake systemctl 'echo $* >asked'; ctl restore b --restart; cat asked => 0 restart dravel-man
    backup -> fake systemctl 'echo no unit >&2; exit 5'; ctl restore b --restart => 1 restarted: no unit;
    mkdir b -> ctl restore b => 1 /run/bench/shell/b/.dravel.db cannot be read: No such file
    ctl restore $(printf %0300d) => 1 0 is no directory: File name too long
    ctl import /tmp => 1 cannot read /tmp: Is a directory
    ctl backup '' => 2 is empty
    ctl backup $(printf '\377') => 2 not UTF-8
    ctl backup /nowhere => 1 /nowhere is no directory
    ctl backup /proc => 1 cannot write to /proc
  )");
}

TEST_F(Ctl, AFileWithAFault_IsNotImported) {
  check(R"(
    add 7:00 --on mon; holidays add 12-24 12-26; ctl export >x; ctl cancel 1 -> \
      ctl import x && ctl list => 1 1 added, 1 refused.\nholidays[0]: they are there already
    echo '{"timers":[{"type":0,"at":"2026-12-14T07:00:00"}]}' | ctl import - => 1 timers[0]: not added:
    echo x | ctl import - => 1 standard input is no JSON
    echo '{"timers":5}' | ctl import - => 1 timers is 5; it must be a list
    echo '[]' | ctl import - => 1 holds neither timers nor holidays
    echo '{"timers":[5]}' | ctl import - => 1 timers[0] is 5; it must be an object
    echo '{"timers":[{"type":0,"days":5}]}' | ctl import - => 1 timers[0].days is 5; it must be a list of days
    edited 's/"type": 0/"type": 255/' => 0 .type is 255; it must be a whole number from 0 to 254
    edited 's/"delay": 0/"delay": 1.5/' => 0 timers[0].delay is 1.5; it must be a whole number
    edited 's/"Mon"/7/' => 0 timers[0].days is 7; it must be a list such as ["Mon","Fri"]
    edited 's/"time": "/&1/' => 0 .time is "107:00"; it must be such as 07:00
    edited 's/"time": "07:/"at": "2026-12-21 07:/' => 0 .at is "2026-12-21 07:00"; it must
    edited s/ignore/ignored/ => 0 timers[0].holidays is "ignored"; it must be skip or ignore
    edited 's/"priority"/"prio"/' => 0 a field prio, which dravelctl export does not write
    edited 's/"type": 0,//' => 0 timers[0] has no type
    edited 's/"month": 12/"month": 11/; s/: 24/: 31/' => 0 first.day is 31; it must be a day of that month
    edited 's/: 24/: {}/' => 0 first.day is an object; it must be a whole number from 1 to 31
    edited 's/ry": false/ry": 0/' => 0 first.end_of_february is 0; it must be true or false
    edited 0,/24/s//25/ => 0 holidays[0] runs over the new year and matches no day
  )");
}

// A time of day has no zone; a date is in the zone that it says.
TEST_F(Ctl, Files_AreCarriedOver) {
  check(R"(
    file '{"type":0,"at":"2026-07-14T07:00:00+02:00","days":["Mon"]}' -> ctl import x => 0 Note: x: timers[0]: it repeats
    file '{"type":1,"at":"2026-12-24T08:00:00-05:00","delay":7}' -> \
      export TZ=CET-1; ctl import x; ctl export => 0 "at": "2026-12-24T14:00:00+01:00", ... "delay": 7,
    add 7:00 --on mon; add 6:00 --on tue; ctl export >x; ctl cancel 1 2 -> \
      ctl import x; ctl export | cmp - x && ctl list => 0 2 added, 0 refused. =/> differ
    add 7 --on mon; file $seven -> ctl import x => 1 timers[0]: it is there already as timer 1
    add 7 --on mon --holidays skip; file $seven -> ctl import x => 1 timers[0]: timer 1 is of this type
    add 7 --on mon; file '{"type":0,"time":"07:00","days":["Mon"],"clock":"rtc"},{"type":0,\
      "time":"07:00","days":["Tue"]}' -> ctl import x => 0 2 added, 0 refused.
    add 8:00 --on wed; add 7:00 --on mon -> ctl export | grep time | tr -d '\n' => 0 07:00",   "time": "08
    add '2026-12-24 7:00' --clock internet -> export TZ=CET-1; ctl export; ctl list -j => 0 \
      "2026-12-24T08:00:00+01 ... "at":"2026-12-24T08:00:00+01:00", ... "set_for":"2026-12-24T07:00:00"}
    holidays add 12-24 -> ctl export => 0 "holidays": [\n  {\n   "first"
    add 7:00 --on mon; ctl export >x; ctl cancel 1 -> ctl import x --json => 0 "added":1,"ids":[2],
    file $once $christmas -> ctl import x => 0 timers[0]: Holidays move it from Thu ... to Sat
  )");
}

// The coming year begins on 15 December 2026.
TEST_F(Ctl, Calendars_GiveTheHolidaysOfTheComingYear) {
  check(R"(
    ics $D:20101226\\nRRULE:FREQ=YEARLY\\nSUMMARY:Boxing\\\\nDay >x -> holidays import x => 0 \
      Holidays 1 are added: 26 Dec, Boxing Day.\nTimers that skip them: none\nNote: No timer skips
    holidays import /tmp => 1 cannot read /tmp: Is a directory
    ics $D:20270101 >x; ics $D:20270401 >>x -> holidays import x => 0 1 Jan.\nHolidays 2 are added: 1 Apr.
    ics $D:20261231\\nDTEND${D#DTSTART}:20270103 >x; add 7 --holidays skip; add 8; add 6 --type always \
      -> holidays import x; ctl -j holidays => 0 Holidays 1 are added: 31 Dec.\nHolidays 2 are added: \
      1 Jan to 2 Jan.\nTimers that skip them: 1\n
    ics $D:20250401\\nRRULE:FREQ=YEARLY\\nDURATION:P2D\\nRDATE${D#DTSTART}:20270701\\nEXDATE${D#DTSTART}:\
20270401 >x -> holidays import x => 0 Holidays 1 are added: 1 Jul to 2 Jul.\nTimers
    ics $D:20270401 $D:20270401 >x; add 7; add 6 --type always -> \
      holidays import x --all; holidays import x --all; ctl list => 0 Holidays 1 are added: 1 Apr.\nTimers \
      that skip them: 1\nNote: Hol ... All of them are there already.\nTimers that skip them: 1\n ... no holidays =/> Holidays 2
    ics $D:20261214\\nDTEND${D#DTSTART}:20261216 $D:20271215 >x -> holidays import x => 0 \
      1 are added: 14 Dec to 15 Dec.\nTimers =/> Holidays 2
    ics $D:20270401\\nSUMMARY:$(printf %099d 0)ü >x -> holidays import x => 0 000.\nTimers
    ics $D:20270401 >x -> holidays import x --check; holidays => 0 \
      Would be added: 1 Apr.\n =/> FIRST DAY
    ics $D:20270401 >x -> holidays import - --check -j <x; holidays => 0 {"added":[{"id":null,"first":\
    {"month":4,"day":1,"end_of_february":false},"last":{"month":4,"day":1,"end_of_february":false},\
    "name":""}],"skipped_by":[],"moved":[],
    ics $D:20261214 $D:20271215 DTSTART:20270401T080000Z $D:20270401\\nSTATUS:CANCELLED \
      $D:20100401\\nRRULE:FREQ=HOURLY $D:20270401\\nDTEND${D#DTSTART}:20280402 >x -> \
      holidays import x => 1 x has no entry of whole days in the coming year; nothing is imported
    ics $D:20270401\\nRRULE:FREQ=YEARLY\;BYHOUR=1 >x -> holidays import x => 1 x has no entry of whole
    ics $D:20270401\\nEXRULE:FREQ=SECONDLY\;BYMONTH=2\;BYMONTHDAY=1 >x -> timeout 5 dravelctl holidays import x => 1 x has no
    ics $D:10101226\\nRRULE:FREQ=DAILY >x -> holidays import x => 1 repeats its entries too often
    ics $D:20270401\\nSUMMARY:a$(printf '\\302\\233')2b >x -> holidays import x => 0 1 Apr, a 2b.
    ics $D:20270401\\nSUMMARY:$(printf '\\243%.0s' $(seq 40)) >x -> ctl holidays import x | tr -cd '\357' | wc -c => 0 33\n
    ics $D:20270401\\nSUMMARY:ü >x -> holidays import x -j => 0 "name":"ü"
    ics $D:20261332\\nDTEND${D#DTSTART}:20270199 >x -> holidays import x => 1 has no entry of whole days
    ics $D:20270401 | head -n4 >x -> holidays import x => 1 is cut off
    echo x | holidays import - => 1 standard input is no calendar in
    ics $D:20270402 $D:20270401 >x -> holidays import x => 0 Holidays 1 are added: 1 Apr.
    holidays import y => 1 cannot read y: No such file
    ics $D:20270401 >x -> fake ssh 'shift 2; eval "$1"'; dravelctl --host=a@b holidays import x => 0 1 Apr.
  )");
}

TEST_F(Ctl, Apply_MakesTheSetEqualToAFile) {
  check(R"(
    add 6:00; add 7:00 --on mon; add 6:00 --type 10; holidays add 01-01; file $seven,$off $christmas \
      -> ctl apply x; ctl apply x; ctl list => 0 Nothing to change. =/> \n1   
    add 6:00; file $seven,$off $christmas -> ctl apply x --check; s=$?; ctl list; exit $s => 5 \
      Would be added: on, Mon, 07:00. =/> \n2
    file $seven; ctl apply x -> ctl apply x --check => 0 Nothing to change.
    add 7:00 --on mon; file $seven '' '"types":[1],' -> ctl apply x => 1 does not name in types
    add 6:00 --on tue; file $off '' '"types":["off"],' -> ctl apply x; ctl list => 0 Added off =/> cancelled
    add 7:00 --on mon --holidays skip; file $seven -> ctl apply x; ctl list => 0 \
      Timer 1 ignores holidays. =/> \n2
    add 7:00 --on mon --holidays skip; file $seven -> ctl apply x --check => 5 \
      Would be changed: timer 1, to ignore holidays.
    add +1h --type 10; dravelctl export >x -> ctl apply x; ctl apply x --check => 0 \
      13:00 is never stored; no timer is set ... never stored; no timer is set
    file $seven $christmas,$christmas -> ctl apply x => 1 holidays 24 Dec to 25 Dec stand twice
    file $seven,$seven -> ctl apply x => 1 on, Mon, 07:00 stands twice in the file
    file '{"type":0,"time":"07:00"}' -> ctl apply x => 1 timers[0] is for once and has no date
    file '{"type":0,"time":"07:00","at":"2026-12-24T08:00"}' -> ctl apply x => 1 has both time and at
    file '{"type":0,"at":"2026-12-01T07:00:00"}' -> ctl apply x => 0 has passed; no timer is set
    file $once $christmas; ctl apply x -> ctl apply x; ctl list => 0 Sat 2026-12-26 22:00 =/> \n2
    file $once $christmas,$boxing -> ctl apply x => 0 Added off, once, Sun 2026-12-27 22:00.
    file $once $christmas,$boxing; holidays add 12-24 12-25; holidays add 12-26; \
      add '2026-12-24 22:00' --type off --holidays skip -> ctl apply x => 0 Nothing to change.
    file $once $year -> ctl apply x => 0 22:00 has holidays on every day; no timer is set
    file $seven -> ctl apply x --check -j => 5 "changed":true
    file $seven $christmas -> ctl apply x -j => 0 "changed":true, ... "holidays_added":[{"id":1,
    file '{"type":0,"at":"2026-12-21T07:00:00+01:00","days":["Mon"]}' -> ctl apply x => 0 Note: x: timers[0]:
    one_period; file $seven "$christmas,"'{"first":{"month":1,"day":1},"last":{"month":1,"day":1}}' -> \
      ctl apply x => 1 Added holidays 24 Dec to 25 Dec.\nRefused: holidays 1 Jan: dravel-manager
    eighty; ctl cancel 80; add +50s --type off; file $off -> ctl apply x => 0 \
      (on, Mon, 07:00).\nAdded off
    eighty; file $off '' '"types":["off"],' -> ctl apply x => 1 81 timers would be listed
    add 7:00 --on wed; add 7:00 --on thu; add 6:00 --type off; file -> ctl apply x => 0 \
      Cancelled timer 3 (off, once, Wed 2026-12-16 06:00).\nCancelled timer 2 (on, Thu, 07:00).\nCanc
    file '{"type":1,"time":"06:00","days":["Wed"]},{"type":0,"time":"07:00","days":["Thu"]},\
      {"type":0,"time":"07:00","days":["Wed"]}' -> ctl apply x => 0 \
      Added on, Wed, 07:00.\nAdded on, Thu, 07:00.\nAdded off, Wed
    add 7:00 --on mon; add 7:00 --on mon; file $seven -> ctl apply x => 0 Cancelled timer 2
    add 7:00 --on mon; file '{"type":0,"time":"07:00:05","days":["Mon"]}' -> ctl apply x => 0 Nothing to
    add 7:00 --on mon; file '{"type":0,"time":"07:00","days":["Mon"],"delay":7}' -> ctl apply x => 0 Added
    add 6:00; file '{"type":0,"at":"2028-01-01T07:00:00"}' -> ctl apply x => 1 nothing is done: on, once, Sat
    add 6:00; file $seven; sqlite3 /opt/dbspace/.dravel.db 'CREATE TRIGGER t BEFORE INSERT ON dravel \
      BEGIN SELECT raise(FAIL, "no"); END' -> ctl apply x => 1 Refused: on, Mon, 07:00: =/> Cancelled
    add 7 --on mon; holidays add 12-24; echo '{"timers":[]}' >x -> ctl apply x; holidays => 0 24 Dec =/> Rem
    add 7 --on mon; add 6 --type 10; echo '{"holidays":[]}' >x -> ctl apply x => 0 Nothing to
    add 6:00 --type 10; file -> ctl apply x => 0 Nothing to
    for to in '-x list' 'root@-x list' ''; do dravelctl -H $to; done => 2 -H needs ... -H needs ... -H needs
    ctl list -H a@b => 2 -H stands behind another word
    dravelctl -H a@b import y => 1 cannot read y: No such
    d=$(command -v dravelctl); PATH=/ $d -H a@b list => 3 cannot run ssh: Failed to
    add 7 --on mon; file $seven -> fake ssh 'shift 2; eval "$1"'; dravelctl -Ha@b apply -t 5 x => 0 Nothing
    fake ssh 'echo $1'; script -qc 'dravelctl -H a@b rm --all; dravelctl -H a@b rm 1' /dev/null; \
      dravelctl -H a@b rm --all </dev/null => 0 -t\r\n--\r\n--\n
    fake ssh 'exit 255'; dravelctl -H a@b list => 3 cannot reach a@b
  )");
}

TEST_F(Ctl, WhatKeepsItFromWorking_IsSaid) {
  check(R"(
    ctl canopy => 2 there is no command canopy; dravelctl help lists
    ctl '' => 2 dravelctl: there is no command ''; dravelctl help lists
    ctl help rm => 0 Cancel timers
    ctl help cancel 3 => 2 there is no command cancel 3; dravelctl help lists those
    ctl hol add --at fri 20:00 => 2 there is no command hol, did you mean holidays?;
    ctl help holidays ad => 2 no command holidays ad, did you mean add?; dravelctl help holidays lists
    ctl lsit => 2 no command lsit, did you mean list?;
    ctl on; ctl log => 2 no command on; ... no command log;
    ctl del => 2 no command del, did you mean delete?;
    ctl edit 1 --at 8 => 2 did you mean change?
    ctl --help => 0 \n  cancel, rm, delete, remove\n                            Cancel timers\n
    ctl list --help -j => 0 {"name":"list","summary":
    ctl help add => 0 \n  --on DAYS                 Repeat
    ctl help holidays add => 0 Usage: dravelctl holidays add
    ctl help change => 0 on, off, ... or a number ... ignore the holidays =/> default
    ctl -V => 0 dravelctl 1
    ctl -V -j => 0 {"version":"1
    ctl -j --help => 0 {"name":"dravelctl",
    ctl help show --json => 0 {"name":"show","summary":"Show one timer","options":[{"name":"ID"
    ctl -j lsit => 2 {"error":{"kind":"usage","what":"there is no command lsit, did you mean list?"
    signal STOP -> wait=0.5; add 7 -j; status=$?; signal CONT; exit $status => 3 "kind":"timeout"
    signal STOP -> wait=0.5; ctl; status=$?; signal CONT; exit $status => 3 not answer within 0.5 seconds
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/x ctl list => 3 no system bus: No such file
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/x ctl types => 0 turns the set on
    mkfifo e; dbus-daemon --fork --config-file=$bus_conf --address=unix:path=$PWD/b --print-pid >p; \
      DBUS_SYSTEM_BUS_ADDRESS=unix:path=$PWD/b timeout 9 dravelctl monitor 2>e & exec 5<e; read said <&5; \
      kill $(cat p); cat <&5; wait $! => 3 the system bus went away
    p=$(busctl call $bus / $bus GetConnectionUnixProcessID s $bus | cut -d' ' -f2); kill -STOP $p; \
      wait=0.2; ctl check; s=$?; kill -CONT $p; exit $s => 3 no system bus: Connection timed out
    ctl --json -H => 2 "what":"-H needs USER@HOST"
    ctl list foo => 2 list does not take foo; write it as in dravelctl list
    holidays add --foo=5 => 2 no option --foo of holidays add; dravelctl help holi
    ctl --on mon add => 2 --on stands before add; write it behind add
    ctl show => 2 show needs ID; write it as in dravelctl show 3
    ctl show 1 2 => 2 show does not take 2; write it as in
    ctl add --at => 2 --at needs TIME; 7:00,
    add 7:00 --at 8:00 => 2 --at=8:00 is one too many; give one --at
    ctl list --json=5 => 2 --json takes no value; write --json alone
    dravelctl --timeout 0 list => 2 from 0.001
    ctl list >/dev/full => 1 No space left on device
    timeout 9 dravelctl monitor 2>&1 >/dev/full | { read n; add 7 >n; cat; } => 0 No space left
    eighty -> ctl export >/dev/full; holidays add 12-24 >/dev/full => 1 No space ... No space left on device
    ctl list >&- => 1 cannot write the output
    add 7:00 >/dev/full; ctl list => 0 is carried out, but dravelctl cannot write
    mkfifo p -> exec 3<>p 4>p 3>&-; ctl help >&4; echo $? => 0 0\n =/> Broken pipe
    mkfifo p e -> exec 3<>p 4>p 3>&-; timeout 9 dravelctl monitor 2>e >&4 & exec 5<e; read said <&5; \
      ctl halt on; cat <&5; wait $! => 0 Off-timers: active =/> dravelctl
    ctl -- show 1 => 2 write the command before --
    add 25:00 -j => 2 {"error":{"kind":"usage","what":"--at=25:00 is ... ,"option":"--at"}}
    ctl show 9 -j => 1 {"error":{"kind":"refused","what":"there is no timer 9"
    add $(printf %05000d) 2>&1 | sed 's/0\{200\}/long/' => 0 --at=00000 =/> long
    ctl monitor --count 0 => 2 --count=0 is no count of expiries; give 1 or more
  )");
}

class CtlAlone : public Ctl {
  void begin_step() override {}
  void end_step() override {}
};

TEST_F(CtlAlone, SaysThatNoDaemonRuns) {
  check(R"(
    ctl check => 1 problem Daemon: dravel-manager is not running
    file $seven,$seven -> ctl import x => 3 dravelctl: dravel-manager is not running; start it =/> added
    ctl list => 3 dravelctl: dravel-manager is not running
    ctl list -j => 3 {"error":{"kind":"not-running","what":"dravel-manager is not running
    mkfifo p -> timeout --foreground 9 dravelctl monitor 2>p & read said <p; echo $said; kill $! => 0 \
      not running; waiting
  )");
}

TEST_F(Ctl, Documents_FitTheirSchemas) {
  start();
  const outcome faults = shell(kHelpers + R"(
three >/dev/null 2>&1
fits add add --at 7:00; fits change change 4 --at 8:00; fits cancel cancel 5; fits show show 1
for name in status list wakeup explain week halt types overview export; do fits $name $name; done
ics $D:20270401 >c; fits 'holidays import' holidays import c
fits 'holidays list' holidays list; fits 'holidays add' holidays add 12-25 --all
fits 'holidays remove' holidays remove 1; fits 'holidays skip' holidays skip 1
file $seven $christmas; fits apply apply x --check; fits apply apply x; fits import import x
fits 'holidays ignore' holidays ignore 6; fits help help; fits version -V; fits error show 99
{
  start_monitor --json; add 9:00; ctl halt on; ctl rm --all; holidays add 12-26; until_told s-added >m
} >/dev/null 2>&1
name=monitor document_fits <m
mkdir b; fits backup backup b; fits restore restore b)");
  EXPECT_EQ(faults.said, "");
}

TEST_F(Ctl, EveryExample_IsUnderstood) {
  start();
  const outcome examples = shell(R"(
mkdir /run/backups; dravelctl export >timers.json; dravelctl add --at 7:00 >&2
for command in $(dravelctl help | sed -n '/^Subcommands/,$ s/^  \([a-z]*\)[ ,].*/\1/p'); do
  example=$(dravelctl help $command | sed -n 's/^Example: //p; s,/var,/run,')
  [ $command = monitor ] || eval "$example"
  [ $? = 2 ] && echo "not understood: $example"
  dravelctl help $command | grep '.\{81\}' && echo "not understood: its width"
  case $example in 'dravelctl '*) count=$((count + 1)); esac
done; echo "$count examples")");
  EXPECT_THAT(examples.said, testing::Not(HasSubstr("not understood")));
  EXPECT_THAT(examples.said, testing::EndsWith("\n24 examples\n"));
}

// What stands in the daemon's place, in all steps of a case, tells what they let it tell.
class CtlWithout : public CtlAlone {
protected:
  CtlWithout() { simulated_.wait_name(bus, kDaemon); }
  ~CtlWithout() override { simulated_.stop(); }

private:
  process simulated_{{"/usr/bin/python3", "-m", "dbusmock", "--system", kDravelBusName,
                      kDravelObjectPath, kDravelBusName}};
};

TEST_F(CtlWithout, WhatADaemonTells_IsShown_AndWhatItDoesNotTell_IsMarkedAsGuessed) {
  check(R"steps(
    ctl => 1 this dravel-manager is older than dravelctl
    older -> ctl list => 0   daily  halted, guessed\n2   on    not armed
    ctl list => 0   daily  no holidays, guessed\n
    ctl show 1 => 0 , halted, guessed\n
    ctl list -j => 0 "armed":true,"guessed":true,"halted":true
    newer false -> ctl explain => 0 It is not armed: the set has woken up and its time is not confirmed yet. =/> It is armed
    newer true -> ctl explain => 0 It is not armed: the daemon gives no reason; its log says why
    newer true $((noon + 30)) -> ctl explain => 0 : it is due within this minute.\nThe set is woken for nothing.
    newer true $((noon + 90)) -> ctl explain => 0 : the daemon has chosen so.
    newer true $((noon - 60)) -> ctl explain => 0 It does not fire in the coming five weeks.\nIt then \
      wakes the set, reason 20.\nThis machine then starts dravel-wakeup@20.target; the television stays off.\n
    ctl wakeup => 0       Timer: 2\n
    method request_set_disable_period $(printf i%.0s $(seq 20)) i 3; denied schedule_timer iiiiiiiiiiiiiii; \
      file $seven,$seven $christmas -> ctl import x => 4 1 added, 0 refused.\ndravelctl: you may not change
    file $seven,$seven $christmas -> ctl import x -j => 4 {"added":1,"ids":[],"refused":[{"what":"the rest",
    file $seven,$seven -> ctl import x -j => 4 {"error":{"kind":"not-allowed",
    method request_timer_list i iay '(1, [1])' -> ctl list => 1 the answer to request_timer_list is \
      not understood; dravelctl and dravel-manager are of different versions
    method request_timer_list i iay 'os._exit(0)' -> ctl list => 3 dravel-manager ended before it answered
  )steps");
}

TEST_F(CtlWithout, WhatAMachineTells_IsShown) {
  check(R"steps(
    newer true; machine -> export TZ=CET-1; ctl => 0 Problem: One thing. dravelctl check shows more.\n ... \
      Woken by: timer 2 (wake-20, once)\n      Screen: on, by cec0 1.0.0.0\n       Alarm: Wed 2026-12-16 \
      08:00:00, in 20 hours, for another program\nLast wake-up: Tue 2026-12-15 08:00:00, on the way to ... \
      Sleeps: Tue 2026-12-15 13:30:00, in 90 minutes; postponed: a download\n
    export TZ=CET-1; ctl -j => 0 "woken_by":{"id":2, ... "alarm":"2026-12-16T08:00:00+01:00", ... \
      "alarm_for":"foreign","alarm_problem":"","last_wake":"2026-12-15T08:00:00+01:00", ... \
      "last_wake_cause":"hop","sleeps_at":"2026-12-15T13:30:00+01:00", ... "postponed":"a download",\
      "problems":["one thing","/etc/dravel-manager.conf: x"]
    ctl check => 1 note    NTP: timedated does not answer ... problem Sleep: logind does not answer ... \
      Other alarm: Wed 2026-12-16 07:00:00, in 19 hours, for another program; the machine's own ... \
      ok      Screen: the television answers to cec0 1.0.0.0: on\nproblem Machine: one thing; journalctl \
      ... problem Configuration: /etc/dravel-manager.conf: x; correct it
    machine '' unknown -> ctl check => 1 note    Screen: the television does not answer to cec0 1.0.0.0 now
    machine "$screen else 'off'})" -> s=$(date +%s%N); ctl test screen --seconds 1; \
      [ $(($(date +%s%N) - s)) -ge 1000000000 ] && echo waited => 0 \nThe television said: off, then on.\nwaited
    machine "$screen else 'unknown'})" -> ctl test screen --seconds 0 => 0 : nothing, then on.\n
    machine -> ctl test screen --seconds 0 => 1 : on, then on.\ndravelctl: the television did not follow
    machine "open('/run/bench/shell/on', 'w') if args[0] else args[1]" -> \
      ctl test screen --seconds 0; ls => 0 \non\n
    wakes 20 test 'time.sleep(0.6); ' -> wait=0.5; ctl test wake --seconds 30 => 0 slept for 57 seconds and was woken for a test, in time.\n
    wakes 20 user -> ctl test wake --seconds 30 => 1 by its user, in time.\ndravelctl: the alarm did not
    wakes 230 test -> ctl test wake --seconds 30 => 1  minutes late.\ndravelctl: the alarm did not
  )steps");
}

TEST_F(CtlWithout, Documents_FitTheirSchemas) {
  const outcome faults = shell(kHelpers + R"sh(
newer true $noon; machine "$screen else 'off'})"; fits 'test screen' test screen --seconds 0
for name in status overview screen check explain; do fits $name $name; done
wakes 31 test; fits 'test wake' test wake --seconds 31)sh");
  EXPECT_EQ(faults.said, "");
}

TEST_F(CtlWithout, Monitor_JoinsTheSignalsOfAnExpiry) {
  const outcome told = shell(kHelpers + R"(
send() {
  busctl call $daemon $object $bus.Mock EmitSignal -- sssav \
    $daemon dravel_$1 i 1 i $2
}
start_monitor --count 2
send type_expired 9 # the rest of it came too early
send week_flag_expired 34; send expired 7; send type_expired 1
send week_flag_expired 34; send type_expired 9 # the middle of it is missing
send week_flag_expired 0; send expired -10; send type_expired 10
cut -d' ' -f5- <&3; wait $!)");
  EXPECT_EQ(told.status, 0);
  EXPECT_THAT(told.said, testing::EndsWith("\ntimer 7 expired: off, Mon,Fri\n"
                                           "timer -10 expired: transient-off, once\n"));
}

TEST_F(Ctl, Monitor_TellsEveryChange) {
  check(R"steps(
    start_monitor; in_berlin; add 7 >n; until_told wake; holidays skip 1 >n; until_told changed; \
      holidays add 12-24 >n; until_told ' added:'; ctl rm 1 >n; told 'wake for' => 0 \
      timer 1 added: on, once, Wed 2026-12-16 07:00:00, in 19 hours\nTue 2026-12-15 12:00:00  \
      the set is programmed to wake on Wed 2026-12-16 06:00:00 UTC for timer 1\n ... \
      timer 1 changed: on, once, Wed 2026-12-16 07 ... holidays 1 added: 24 Dec\n ... \
      timer 1 removed: cancelled\nTue 2026-12-15 12:00:00  the set is programmed to wake for nothing\n
    start_monitor -j; add 14:00; told '"wakeup"' => 0 "event":"added","id":1,"timer":{"id":1
    start_monitor; for name in $(busctl list --unique --no-legend | cut -d' ' -f1); do for last in week_flag type; do \
      busctl --destination=$name emit /org/olvara/tv/system/dravel $daemon dravel_${last}_expired i 1; \
      busctl --destination=$name emit /org/olvara/tv/system/dravel $daemon dravel_expired i 1; done; done; \
      ctl halt off; told active, => 0 off-timers halted =/> expired
    start_monitor; asleep; told clock => 0 the clock is known, not confirmed\n
    start_monitor; lose_clock; ctl halt off; told clock => 0 the clock is not known, confirmed\n
    start_monitor; set_clock $((noon - 7200)); told 'clock was' => 0 the clock was set back by 2 hours\n
    busctl set-property $daemon $standin ClocksRunning b true -> start_monitor; \
      busctl call $daemon $standin TimeSet; ctl halt off; told active, => 0 halted\n =/> clock was
    start_monitor -j; set_clock $((noon + 7200)); told clock-set => 0 "event":"clock-set","by":7
    start_monitor; ctl halt off; told active, => 0 on-timers active, off-timers halted\n
    ctl halt off -> start_monitor -j; ctl halt on; told halts => 0 "event":"halts","on":true,"off":true
    ctl halt off -> start_monitor -j; add +1s --type 10; told expired; ctl explain => 0 \
      "event":"expired","id":-10,"type":10,"type_name":"transient-off","days":[],"halted":true
    start_monitor; add +1s --type 10; told expired; ctl explain => 0 \
      It is not armed: it has expired, and a transient timer stays listed.
    holidays add 12-24 -> start_monitor -j; holidays remove 1; told removed => 0 \
      "event":"holidays-removed","id":1,"holidays":{"id":1,"first":{"month":12,"day":24
    start_monitor; holidays add 12-24 >n; until_told 'added: 24'; holidays remove 1 >n; told 'holidays 1 removed' => 0 \
      1 added: 24 Dec\nTue 2026-12-15 12:00:00  holidays 1 removed: 24 Dec\n
    add 7 -> start_monitor -j; ctl rm 1; told '"wakeup"' => 0 "event":"removed","id":1,"why":"cancelled"
    add 12:30 --on daily -> start_monitor; set_clock $((noon + 7200)); told 'is now' => 0 \
      timer 1 is now armed for Wed 2026-12-16 12:30:00\n
    add 12:30 --on daily -> start_monitor -j; set_clock $((noon + 7200)); told '"armed"' => 0 \
      "event":"armed","id":1,"at":"2026-12-16T12:30 ... "was":"2026-12-15T12:30
  )steps");
}

// The code of docs/client.md, as it stands there.
TEST_F(Ctl, TheDocumentedClients_Work) {
  start();
  EXPECT_THAT(shell("code() { sed -n '/^```'$1'$/,/^```$/ { /^```/ !p }' " CLIENT_DOC "; }\n"
                    "code python >client.py; /usr/bin/python3 client.py\n"
                    "code c >client.c; cc client.c " INCLUDES
                    " -o client $(pkg-config --cflags --libs gio-2.0) && ./client")
                  .said,
              testing::AllOf(HasSubstr("timer 1, type 1, fires at 1797339600\n"),
                             HasSubstr("timer 2, fires at 1797339600\n")));
}

// But for the names of the arguments, which the wire does not know.
TEST_F(Ctl, Introspection_IsWhatIsInstalled) {
  start();
  for (const auto &[path, xml] : {std::pair{kDaemon.path, ".xml"}, {kState.path, ".state.xml"}}) {
    const outcome difference =
        shell(std::string("own() { sed -n '/<interface name=\"org.olvara/,/<.interface>/p'; }\n") +
              "busctl --xml-interface introspect org.olvara.tv.system.dravel " + path +
              " | own >live\nsed 's/arg name=\"[^\"]*\"/arg/' " INTROSPECTION_XML + xml +
              " | own | diff live - && grep -q '</interface>' live");
    EXPECT_EQ(difference.status, 0) << difference.said;
  }
}

} // namespace
