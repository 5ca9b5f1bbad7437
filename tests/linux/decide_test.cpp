// Rules that the simulated nights do not reach or do not look at.
#include "decide_words.h"
#include "lines.h"

class Decide : public testing::Test {};

SCENARIOS(Decide, ATimeThatComesTwice_IsTheFirstThatIsAhead, "program 0 $1 $2 => wanted $3", R"(
  +60 | +3660 | +60
  -60 | +3540 | +3540
  +0  | +3600 | +3600
  +0  | 0     | 0
)")

// Our alarm has woken the machine.
SCENARIOS(Decide, AMissedTimer_IsMadeUpFor_UnlessALaterOneUndoesIt,
          "program 0 +1000; late $1; sleep 990 =>"
          " woken timer tv_on $2 tv_off $3 start_unit '$4' say '$5'",
          R"(
  0     | 1 | 0 | wakeup on        | woken late screen_on
  2     | 0 | 0 | wakeup           | woken late
  4     | 0 | 0 |                  | woken
  0 1   | 0 | 1 | off              | woken screen_off postponed
  1 0 3 | 1 | 0 | wakeup on wakeup | woken late screen_on late
)")

// Its timer is 100 seconds late.
SCENARIOS(Decide, AMissedOffTimer_TurnsOffForAUser_OnlyOfATimeAtWhichTheMachineWasAwake,
          "sleep 100; pass $1; late 1/+$1; armed => tv_off $2", R"(
  0   | 0
  99  | 0
  100 | 1
)")

SCENARIOS(Decide, AMissedOffTimer_LeavesAScreenOnThatIsOrderedOnSince, R"(
  set reach 86400; program 0 +259200; late 1/+86300; sleep_begins; slept 86400; screen_wanted on bus
    => woken hop tv_on 1 tv_off 0 wish none
)")

SCENARIOS(Decide, AnOffTimerOfTheLastTwoSeconds_IsNotTooLate,
          "sleep 100; late 1/$1; armed => tv_off $2",
          R"(
  +97 | 0
  +98 | 1
)")

SCENARIOS(Decide, ATimerThatIsMadeUpFor_WakesNothingWhileTheScreenIsOn_AndIsAUse, R"(
  screen_wanted on; tv_reports on; forget; late 0/+0 2/+0; armed => start_unit '' say ''
  set reach 86400; program 0 +259200; late 2/+86000; sleep 86400 => woken hop return_in 120
)")

SCENARIOS(Decide, AScreen_IsBelievedOnlyWhatIsSaid,
          "machine $1; screen_wanted $2 bus; $3 => believed $4", R"(
         | on  | tv_silent              | unknown
         | on  | tv_reports turning_on  | unknown
         | on  | tv_reports on          | on
         | on  | tv_reports off         | unknown
         | off | tv_denies standby      | unknown
         | off | tv_reports turning_off | off
         | off | tv_standby             | off
  no_cec | on  | tv_silent              | on
  no_cec | off | tv_silent              | off
  no_cec | on  | unit_refused on EIO    | unknown
  no_cec | on  | unit_refused wakeup EIO | on
)")

// What was believed before a sleep is no switch of its remote, nor is a message from before it.
SCENARIOS(Decide, ATelevisionsRemote_IsFollowed_WhenItHasSwitchedItOffSinceTheWakeUp,
          "machine follow_screen=yes; tv_reports on; sleep 1000; pass $1; $2 => wish $3", R"(
  5 | tv_reports off                                    | none
  5 | tv_reports on; tv_reports off                     | screen
  5 | tv_standby                                        | screen
  1 | tv_standby                                        | none
  5 | tv_silent; tv_standby                             | screen
  5 | screen_wanted off bus; tv_reports off; tv_standby | none
  5 | screen_wanted on bus; tv_standby                  | none
)")

// The second sleep fails.
SCENARIOS(Decide, AWakeUp_TellsItsReasonOnce_AndAStepOfTheClockOnTheWayDown,
          "program 0 +1000; $1; sleep 985 => deliver 'wakeup 2 $2'; sleep_begins; forget;"
          "sleep_ends => deliver 'wakeup time_update'; forget; tv_reports on; tv_reports off => "
          "deliver 'state state 2'",
          R"(
  nothing                     | time_update
  sleep_begins; clock_stepped | time_set time_update
)")

// A daemon that is not armed yet, or that takes its time within another callback.
SCENARIOS(Decide, AStandby_IsToldBeforeAllElse_AndAWakeUpOnlyWhileTheMachineIsAwake, R"(
  sleep_begins; clock_stepped; forget; sleep_ends => deliver 'wakeup time_set time_update'
  start same_boot; sleep 100 => deliver ''; sleep_begins => deliver standby; armed => deliver '!wakeup'
  busy; clock_stepped => deliver time_set; sleep_begins; returned time_set
    => release_inhibitor 0 deliver 'time_set standby'; returned standby => release_inhibitor 1
  busy; clock_stepped; sleep_begins; sleep_ends; returned time_set => deliver 'time_set wakeup'
  busy; clock_stepped; sleep_begins; slept 100; ambient; returned time_set
    => deliver 'time_set wakeup'
)")

SCENARIOS(Decide, ASleepWhoseCountComesLater_IsOne, R"(
  slept 100; ambient; pass 1; counted; ambient => take_inhibitor 1
)")

SCENARIOS(Decide, AWakeUp_AsksForEverything_AndEndsWhatWasOpen, R"(
  sleep 100 => ask_use 1 tv_ask 1 woken_utc +100 watch_input '' leaving_in -
  screen_wanted on bus; slept 100; ambient => pending no screen_step_in -
  sleep 100; program 0 +1000; slept 885; ambient => woken timer user_window_in -
  sleep 100; sleep_begins => user_window_in - said 'woken 0 0'
)")

// An alarm that goes off 100 seconds before the wake-up has only woken a machine from its disk.
SCENARIOS(Decide, ASleepThatNobodyHasAnnounced_IsAsLongAsAClockShows_AndNoHibernation, R"(
  machine no_cec; off_time; unused; pass 50; slept 1; ambient => went_utc +50
  pass 50; counted; ambient => went_utc +50
  sleep_begins; pass 3; slept 1; ambient => phase awake; pressed 2 => woken nothing
  sleep_begins; pass 3; slept 1; ambient; pressed 1 => woken user
  program 0 +1000; sleep 100; slept 100; ambient => alarm +985
  program 0 +1000; sleep 100; slept 985; ambient => woken nothing
  program 0 +1000; sleep_begins; slept 100; ambient; slept 985; ambient => woken timer
)")

// A monitor never says anything: that is no problem of a television.
SCENARIOS(Decide, AScreenThatStaysSilent_GetsThePairThreeTimes_AndATelevisionOneLine, R"(
  set has_spoken no; screen_wanted on bus; each_second 20 tv_silent
    => tv_on 3 believed unknown problems '';
    set has_spoken yes; forget; screen_wanted on bus; each_second 20 tv_silent
    => tv_on 3 believed unknown problems television said 'television_late 0 0' said_timer 0;
    forget; tv_asks_source => tv_answer 1 tv_ask 1;
    screen_wanted off bus; tv_asks_source => tv_answer 1
  screen_wanted on bus; tv_reports on; screen_wanted off bus; tv_reports off; forget;
    screen_wanted on bus; tv_reports on => tv_on 2
)")

// In the last seconds nobody has asked.
SCENARIOS(
    Decide, ATelevisionThatIsLate_IsAskedOn_AndTakenAtItsWord,
    "machine follow_screen=yes; screen_wanted $1 bus; each_second $2 tv_reports $3; wait $4 =>"
    " tv_ask $5 problems television said '$6'; forget; tv_reports $1 =>"
    " tv_on $7 problems '' wish none screen_step_in -",
    R"(
  on  | 40  | off | 0  | 19 | television_late 1 0 | 1
  on  | 300 | off | 0  | 34 | television_late 1 0 | 0
  on  | 40  | off | 85 | 19 | television_late 1 0 | 0
  off | 40  | on  | 0  | 19 | television_stays 0 0 | 0
  off | 300 | on  | 0  | 34 | television_stays 0 0 | 0
)")

SCENARIOS(Decide, ATelevisionThatRefusesTheQuestion_StillGetsThePairThreeTimes,
          "set has_spoken no; screen_wanted on bus; each_second 3 tv_denies question $1 => tv_on 1;"
          "wait 1 => tv_on 2; each_second 3 tv_denies question $1 => tv_on 2;"
          "wait 1 => tv_on 3 screen_step_in $4; each_second 12 tv_denies question $1 =>"
          " tv_on 3 tv_ask $2 problems '$3' pending no",
          R"(
  yes | 1  |            | -
  no  | 15 | television | 1
)")

SCENARIOS(Decide, ATelevision_SpeaksByARefusal_OfWhatItIsAsked,
          "set has_spoken no; screen_wanted $1 bus; tv_denies $2 => has_spoken $3 pending $4", R"(
  on  | 4        | no  | yes
  on  | standby  | no  | yes
  on  | question | yes | yes
  off | 4        | no  | yes
  off | standby  | yes | no
)")

SCENARIOS(Decide, ATelevisionThatIsLate_IsNotAskedAnyLonger_WhenItSaysSo, R"(
  screen_wanted on bus; each_second 14 tv_reports off; wait 1 => believed off problems television
  screen_wanted on bus; each_second 20 tv_reports off; tv_denies question
    => screen_step_in - believed unknown
  screen_wanted on bus; each_second 20 tv_reports off; tv_reports on; tv_reachable no; forget;
    tv_reachable yes => tv_on 0 tv_ask 1
)")

SCENARIOS(Decide, AnAdapterThatComesLate_GetsTheOrder_UnlessItIsOld,
          "machine $1; screen_wanted on; tv_reports on; tv_reachable no => believed $2;"
          "forget; pass $3; tv_reachable yes => tv_on $4 tv_ask $5 pending $6",
          R"(
  no_cec | on      | 60  | 1 | 0 | yes
  no_cec | on      | 121 | 0 | 1 | no
         | unknown | 60  | 0 | 1 | no
)")

SCENARIOS(Decide, ATelevisionThatIsSentOff_MayBeSilent_ButNotStayOn, R"(
  screen_wanted off bus; each_second 20 tv_reports on
    => problems television believed on deliver state said 'television_stays 0 0';
    screen_wanted off bus; forget; each_second 20 tv_silent => problems '' say '!television_stays'
  tv_reports on; screen_wanted off bus; times 15 wait 1 => believed unknown problems ''
  screen_wanted off bus; each_second 14 tv_reports on; tv_reachable yes; wait 1 => believed unknown
)")

SCENARIOS(
    Decide, AMachineThatFollowsItsTelevision_IsNeverSwitchedOff,
    "machine follow_screen=yes off=$1; tv_reports on; tv_reports off => wish screen method $2",
    R"(
  suspend   | suspend
  hibernate | hibernate
  poweroff  | suspend
)")

SCENARIOS(Decide, ARefusedInhibitor_IsTriedForEveryMinute_AndAfterASleep, R"(
  refused inhibitor EIO => inhibit_again_in 1; wait 1; refused inhibitor EIO => inhibit_again_in 10;
    wait 10; refused inhibitor EIO => inhibit_again_in 60;
    wait 60; refused inhibitor EIO => inhibit_again_in 60; wait 60 => take_inhibitor 4;
    refused inhibitor EIO; works television => inhibit_again_in 60;
    works inhibitor => inhibit_again_in -; refused inhibitor EIO => inhibit_again_in 1 said_timer 0;
    slept 100; ambient => take_inhibitor 5
)")

// The wake-up may show before logind says so.
SCENARIOS(Decide, ADelayRefusedWhileASleepEnds_IsNoProblem_AndTakenAfterIt, R"(
  sleep 100; forget; refused inhibitor EINPROGRESS => say '';
    sleep_ends => take_inhibitor 1 read_alarm 0
)")

SCENARIOS(Decide, AMachineThatMustNotBootForHops_IsNotWoken,
          "machine hop_boots=$1; set reach 82800; program 0 +259200 => stands hop;"
          "preparing no yes => alarm $2 release_inhibitor 1 say '$3'",
          R"(
  yes | +82800 |
  no  | 0      | hop_will_not_boot
)")

// A day has 86400 seconds.
SCENARIOS(Decide, AnOnTimeBeyondTheRange_IsReachedByTheLongestHopThatTheDeviceTakes,
          "range $1; program 0 +3456000 => alarm $2 reach $3 problems '$4'", R"(
  2592000 | +2332800 | 2332800 |
  86400   | +82800   | 82800   |
  79200   | 0        | 0       | alarm_refused
)")

SCENARIOS(Decide, AnAlarmThatIsRefused_IsTriedNearer_WhenTheRefusalSaysSo,
          "refuse $1; program 0 +3456000 => write_alarm '$2'", R"(
  EINVAL | +3455985 +2332800 +82800
  ERANGE | +3455985 +2332800 +82800
  EDOM   | +3455985 +2332800 +82800
  EIO    | +3455985
)")

// Another device may be configured.
SCENARIOS(Decide, AReload_TriesTheWholeWayToTheOnTimeAgain, R"(
  range 86400; program 0 +3456000 => reach 82800; range 9000000; configured
    => alarm +3455985 reach 0
)")

// An error switches off what stood, ours and the other one.
SCENARIOS(Decide, ARefusedAlarm_IsTriedAgain_AtIdleAndUntilTheStandbyIsOver, R"(
  idle; alarm +5000; refuse EIO; program 0 +1000 => wants_idle yes;
    idle => write_alarm '+985 +5000 +985 +5000';
    sleep_begins => alarm_again_in 0.5;
    times 7 wait 0.5 => release_inhibitor 0; wait 0.5 => release_inhibitor 1
    write_alarm '~+910 +5000 +910 +5000 +910' foreign +5000
)")

SCENARIOS(Decide, WhoeverSwitchesOurAlarmOff_DoesNotWantTheLaterOneEither, R"(
  alarm +5000; program 0 +1000; alarm 0; clock_stepped => alarm +985 foreign 0
)")

SCENARIOS(Decide, AnAlarmOfADeviceThatCountsMinutes_IsAWholeOne, R"(
  minutes; program 0 +1000 => alarm +960; test_wake 7 20 => alarm +60
)")

// One of this second has gone off, and stays in the register.
SCENARIOS(Decide, AnAlarm_IsWrittenOnlyAhead_AndWhenItIsAnother, R"(
  program 0 +15 => alarm 0; pass 15; sleep_begins => alarm 0
  program 0 +1000; pass 985; clock_stepped => alarm +985 stands none
  program 0 +1000; program 0 +1001 => alarm +985; program 0 +1002 => alarm +987 alarm_passes_in 988;
    idle; unprogram => wants_idle yes; idle => alarm 0 alarm_passes_in -
  alarm +985; program 0 +1000 => alarm +985 stands foreign
  alarm +986; program 0 +1000 => alarm +985 stands timer
  set reach 86400; program 0 +259200 => stands hop; program 0 +86415 => stands timer alarm +86400
)")

SCENARIOS(Decide, ARefusedAlarm_DoesNotKeepTheNextOneFromBeingTried, R"(
  program 0 +1000; refuse EBUSY; program 0 +2000 => switch_off_alarm 1 alarm +985
  alarm +5000; program 0 +1000; refuse EBUSY; unprogram; idle => switch_off_alarm 1 alarm +985;
    sleep 985 => woken hop
)")

SCENARIOS(Decide, ARefusedAlarm_IsTriedAsIfItWereTheFirst_AfterACallAndAfterASuccess, R"(
  refuse EIO; program 0 +1000; idle => alarm_again_in 1;
    program 0 +2000 => alarm_again_in - wants_idle yes; idle => alarm_again_in 1;
    refuse 0; clock_stepped => problems '' alarm_again_in -;
    refuse EIO; alarm 0; clock_stepped => alarm_again_in - wants_idle yes
  refuse EPERM; program 0 +1000; idle => write_alarm '+985 +985';
    times 256 clock_stepped => alarm_again_in -
  program 0 +1000; unreadable; unprogram; sleep_begins; times 8 wait 0.5 => release_inhibitor 1
)")

SCENARIOS(Decide, AMachineThatNobodyKnownWakesAtOnce_AgainAndAgain_SleepsALittleLess,
          "times 3 sleep 59 => problems '' pause_in -; sleep 59 => problems wakes_loop pause_in 900"
          " said 'problem 17 0';"
          "$1 => problems '' pause_in -",
          R"(
  pressed 0
  sleep 60
  program 0 +300; sleep 49
)")

// One that a user has woken in between begins again; one of no length is no short one.
SCENARIOS(Decide, AUserWhoWakesAMachine_EndsTheCountOfItsShortSleeps, R"(
  times 3 sleep 59; pressed 0; times 3 sleep 59 => problems ''
  times 4 sleep 0 => problems ''
)")

SCENARIOS(Decide, ATest_IsRefused_WhenSomethingIsInTheWay,
          "alarm $3; program 0 $2; use_changed 0 0 $4 sleep 5000; test_wake 7 $1 =>"
          " say '$6test_begins'; test_wake 8 $1 => answer '$5'",
          R"(
  19   | 0    | 0    | 0    | ERANGE ERANGE | !
  3601 | 0    | 0    | 0    | ERANGE ERANGE | !
  60   | +179 | 0    | 0    | EBUSY EBUSY   | !
  60   | 0    | +179 | 0    | EBUSY EBUSY   | !
  60   | 0    | 0    | idle | EBUSY EBUSY   | !
  60   | +180 | +180 | 0    | EALREADY      | ~
  20   | 0    | 0    | 0    | EALREADY      | ~
  3600 | 0    | 0    | 0    | EALREADY      | ~
)")

// The alarm of the timer still stands.
SCENARIOS(Decide, ATestWhoseAlarmTheDeviceDoesNotTake_DoesNotSleep, R"(
  program 0 +5000; refuse EBUSY; test_wake 7 100; unused => sleep '' answer EBUSY
  program 0 +5000; refuse EPERM; test_wake 7 100; unused => sleep '' answer EPERM
  unreadable; test_wake 7 100; unused => sleep '' answer EIO
  test_wake 7 20; pass 21; unused => sleep '' answer EBUSY
)")

// Its alarm is never nearer than a sleep allows, and none when its time is over.
SCENARIOS(Decide, ATestWhoseTimeIsOver_HasNoAlarm_UnlessItsSleepBegins, R"(
  test_wake 7 20; unused; pass 19; clock_stepped => alarm +39; pass 1; clock_stepped => alarm 0
  test_wake 7 20; unused; pass 21; sleep_begins => alarm +41
  refuse EIO; program 0 +5000; refuse 0; idle; test_wake 7 20; pass 20; unused
    => answer EBUSY sleep ''
  use_changed 0 0 0 sleep 5001; test_wake 7 20; test_wake 8 21 => answer ERANGE
  program 0 +20; pass 20; test_wake 7 60 => answer ''; use_changed 0 0 idle sleep 5000 yes
    => answer EBUSY
  machine lead=200; program 0 +1000; test_wake 7 800; unused => answer EBUSY
  test_wake 7 100; unused; sleep 100 => answer 100 read_alarm 1
  sleep_begins; slept 50; test_wake 7 100 => answer '' alarm +150; unused => sleep suspend;
    sleep 100 => answer 100
)")

// An off-timer is of that second.
SCENARIOS(Decide, TheTransition_IsToldAtItsSecond_AndTheNextIsAskedFor, R"(
  next_transition +1000; pass 0.4; zone_changed +5 yes => deliver zone transition_in 4.6;
    pass 4.6; late 1/+5; due => ask_late +4 start_unit off deliver 'zone time_set'
    transition_in 995
)")

SCENARIOS(Decide, TimersOfATransition_AreAskedForInItsSecondOrTheNext,
          "zone_changed +5 yes; forget; pass $1; ambient => ask_late '$2'", R"(
  5 | +4
  6 | +4
  7 |
)")

SCENARIOS(Decide, TheTransition_IsAskedForAfterAStep_AndForgottenInAZoneWithout, R"(
  next_transition +1000; clock_stepped => transition_in 1000; zone_changed 0 yes => transition_in -
)")

// A hop, which passes in the second of another event.
SCENARIOS(Decide, AnAlarmThatPasses_IsSetAgain_WhateverEventComesFirst, R"(
  set reach 86400; program 0 +259200; pass 86401; ambient => alarm +172801
)")

// The daemon does not know yet what it wants.
SCENARIOS(Decide, AnAlarmThatTheFirmwareSwitchesOff_DoesNotTakeTheForeignOneWithIt, R"(
  alarm +5000; program 0 +1000; pass 100; alarm 0; start rtc_valid; unprogram => wanted +1000;
    armed; unprogram; idle => alarm +5000
)")

// The alarm of a new device is not set.
SCENARIOS(Decide, ADeviceThatIsNotUsedAnyLonger_KeepsWhatIsNotOurs, R"(
  alarm +5000; program 0 +1000 => alarm +985 said 'foreign_found +5000 0';
    forget; clock_stepped => say ''; device_leaves => alarm +5000 said 'foreign_put_back +5000 0';
    alarm 0; configured => alarm +985; unprogram; idle => alarm 0
  alarm +5000; program 0 +1000; device_leaves; unreadable; configured => stands none foreign 0
)")

SCENARIOS(Decide, AMonitorBehindAnAdapter_DoesNotDelayTheSleep_AndComesBackWithItsUser, R"(
  set has_spoken no; off_time; unused => sleep suspend; sleep 100; input => tv_on 1 start_unit on
)")

SCENARIOS(Decide, ATelevisionWhoseAdapterIsAway_DoesNotFollowItsUser, R"(
  screen_wanted off bus; tv_reports off; sleep 1000; tv_reachable no; input; tv_reachable yes => tv_on 0
  tv_reachable no; screen_wanted off bus; sleep 1000; input => start_unit on
  machine screen_follows=yes; tv_reports on; sleep 1000; tv_reachable no; wait 11; input => woken user;
    tv_reachable yes => tv_on 1
)")

// By a process that could not run, and by one that holds no inhibitor.
SCENARIOS(Decide, TheSignalOfASleep_MayComeAfterIt, R"(
  machine screen_follows=yes; slept 100; input => woken user; sleep_begins; sleep_ends
    => tv_off 0 ordered on phase awake
  program 0 +1000; late 0/+1000; slept 1005; ambient => pending yes; sleep_begins; sleep_ends
    => pending yes
  test_wake 7 100; unused; slept 100; sleep_begins => answer 100
  program 0 +1000; slept 100; sleep_begins => alarm +910; sleep_ends => alarm +985
  slept 100; ambient; pass 1; unused; sleep_begins => phase going
  machine screen_follows=yes; slept 100; unused; sleep_begins => tv_off 0
  machine screen_follows=yes; shutdown_begins; slept 100; input; sleep_begins => tv_off 0
  machine off=hibernate; program 0 +1000; off_time; tv_reports off; use_changed 0 0 0 15 5000 yes
    => sleep hibernate; slept 985; ambient; sleep_begins; sleep_ends => woken timer last_method hibernate
  slept 100; refused use EIO; pass 3; sleep_begins => phase going
  slept 100; ambient; sleep_begins; sleep_begins => phase going
  slept 100; ambient; sleep_ends; sleep_begins => phase going
  slept 100; ambient; shutdown_begins; sleep_begins => phase going
  sleep_begins; slept 100; start same_boot; armed; preparing yes no => phase awake
  slept 100; start same_boot; armed; preparing yes no => phase awake
  program 0 +3650; counted; pass 3640; sleep_begins; wait 2 => phase awake ask_preparing 1;
    preparing yes no => phase going alarm +3662 release_inhibitor 1
  slept 100; sleep_begins; wait 2; preparing no no => phase awake leaving_in -
  slept 100; sleep_begins; sleep_ends; wait 2 => ask_preparing 0
  slept 100; start same_boot; armed; preparing yes no; forget; wait 2 => ask_preparing 1;
    preparing yes no => phase going
  sleep_begins; slept 100; start same_boot; armed; wait 3; preparing yes no => phase going
  sleep_begins; slept 100; start same_boot; armed; preparing no no; sleep_begins => phase going
)")

// One that sleeps on the way may be suspended only until it hibernates.
SCENARIOS(Decide, ASleepOfSomebodyElse_LeavesTimeToComeBackFromTheDisk_WhenItMay,
          "machine off=$1; use_changed 0 0 0 $2 5000; program 0 +1000 => alarm $3;"
          "sleep_begins => alarm $4; slept 100; ambient => alarm $4;"
          "sleep_ends => alarm $3 last_method $5",
          R"(
  suspend   | suspend   | +985 | +985 | suspend
  suspend   | hibernate | +985 | +910 | suspend
  hibernate | suspend   | +985 | +985 | suspend
  hibernate | hibernate | +910 | +910 | hibernate
)")

// The device of this test goes by the system clock.
SCENARIOS(Decide, ATestThatTheClockStepsOver_StillLeavesTheAlarmOfTheTimer, R"(
  program 0 +5000; test_wake 7 100 => alarm +100; step_clock 1000 => alarm +1100;
    step_clock 3950 => stands timer
)")

// Ours could not follow it any longer once the machine sleeps.
SCENARIOS(Decide, AnAlarmThatGoesOffBeforeTheSleep_IsWaitedFor,
          "alarm $1; program 0 +1000; sleep_begins => release_inhibitor $2;"
          "wait 2 => release_inhibitor $2; wait 1 => release_inhibitor 1 alarm $3",
          R"(
  +2  | 0 | +910
  +3  | 1 | +3
  +10 | 1 | +10
)")

// Nothing of ours follows it then.
SCENARIOS(Decide, AnAlarmThatGoesOffWithTheOnTime_IsNotWaitedForAfterIt, R"(
  alarm +2; program 0 +2; sleep_begins => release_inhibitor 0; wait 2 => release_inhibitor 1
)")

SCENARIOS(
    Decide, AnAlarmThatABusyDeviceKeeps_IsWaitedFor_WhenItGoesOffBeforeTheMachineSleeps,
    "machine no_cec; program 0 +1000; refuse EBUSY; program 0 +9000; pass $1; off_time; unused"
    " => alarm +985 sleep '$2'",
    R"(
  965 | suspend
  966 |
)")

SCENARIOS(Decide, AnAlarmThatCannotBeRead_LeadsToNothing_AndIsReadAgainSoonForASleep, R"(
  machine no_cec; unreadable; program 0 +5000; idle => problems alarm_read alarm_again_in 1;
    wait 1 => alarm_again_in 10; wait 10 => alarm_again_in 60; wait 60 => alarm_again_in -;
    off_time => why no_alarm alarm_again_in - sleep_again_in 900; idle => alarm_again_in 1;
    wait 1; wait 10; wait 60 => alarm_again_in -; forget; wait 829 => read_alarm 1
  unreadable; program 0 +5000; times 3 idle => read_alarm 2 problems alarm_read;
    readable; wait 1 => problems '' alarm +4985
)")

SCENARIOS(Decide, ADeviceThatIsNotThere_IsNotTriedAgain, R"(
  gone; program 0 +5000 => problems no_device; idle => alarm_again_in - read_alarm 1;
    start same_boot => problems ''
  idle; unreadable; gone; program 0 +5000 => wants_idle no
  unreadable; program 0 +5000; idle => alarm_again_in 1; gone; sleep_begins => release_inhibitor 1
  unreadable; program 0 +5000; sleep_begins => alarm_again_in 0.5; gone;
    sleep_ends => alarm_again_in -
)")

// With a delay of one second there is one try before the sleep.
SCENARIOS(Decide, TheTriesOfAnAlarm_AreCountedFromTheWakeUp_AndFromTheRefusalOfASleep, R"(
  use_changed 0 0 0 sleep 1000; refuse EIO; program 0 +5000; sleep 100 => alarm_again_in -;
    idle => alarm_again_in 1
  refuse EIO; program 0 +5000; sleep_begins; sleep_ends => alarm_again_in - wants_idle yes
)")

SCENARIOS(Decide, AnAlarmOfADeviceThatCannotBeRead_HasWokenTheMachine_ByTheSystemClock,
          "program 0 +1000; unreadable; sleep $1 => woken $2", R"(
  985 | timer
  500 | nothing
)")

// A machine that only suspends is back within a minute.
SCENARIOS(Decide, AnAlarm_HasWokenTheMachine_FromTwoSecondsBeforeIt_AndForSoLong,
          "use_changed 0 0 0 $1 5000; program 0 +1000; sleep $2 => woken $3 return_in $4", R"(
  sleep     | 982  | nothing | -
  sleep     | 983  | timer   | 137
  sleep     | 999  | timer   | 121
  sleep     | 1045 | timer   | 120
  sleep     | 1046 | nothing | -
  hibernate | 1210 | timer   | 120
  hibernate | 1211 | nothing | -
)")

// Not when the process has started.
SCENARIOS(Decide, AMachineThatOurAlarmHasBooted_IsItsUsers_WhenItHasSleptSince,
          "program 0 +1000; pass 1045; uptime 60 $1 $2; forget; start booted=60 =>"
          " woken $3 woken_utc +985 said 'booted $4 0' return_in $5 started yes;"
          "ambient => woken $3",
          R"(
  0 | 0 | timer | 2 | 120
  0 | 1 | user  | 1 | -
  1 | 0 | user  | 1 | -
)")

SCENARIOS(Decide, AnAlarmThatCountsMinutes_HasBootedTheMachineEarlier,
          "program 0 +1000; pass 1030; uptime 60 0 0; start booted=60 $1 => woken $2", R"(
  minutes | timer
          | user
)")

// One that starts by itself begins within two minutes of the boot.
SCENARIOS(Decide, ASessionAfterABoot_IsAUser_WhenItBeginsLaterThanOneThatStartsByItself,
          "program 0 +1000; pass 1045; uptime 60 0 0; start booted=60 rtc_valid; armed;"
          "use_changed $1 $2 0 shutdown 5000; wait 120 => why $3",
          R"(
  120000 | 0      | not
  120001 | 0      | session
  0      | 120000 | not
  0      | 120001 | session
)")

// The clock was unknown.
SCENARIOS(Decide, APackageThatIsInstalledLate_MakesUpForNothing,
          "uptime $1 0 0; start first booted=$1; armed; pass 100; ntp on yes =>"
          " ask_late '$2'",
          R"(
  60   | -60 -60
  1799 | -300 -200
  1800 | +0 +0
)")

// The first is awake since its boot, an hour ago.
SCENARIOS(Decide, TheLastWakeUp_IsToldByTheClockOfNow,
          "program 0 +1000; $1; pass 5.999; step_clock 86400 => woken_utc $2 return_in $3", R"(
  nothing   | +82800 | -
  gains 0.999 | +82800 | -
  sleep 985 | +87385 | 120
)")

SCENARIOS(Decide, ATest_EndsWhenAnOnTimeIsSetBeforeItSleeps, R"(
  test_wake 1 100 => answer ''; program 0 +200; unused => sleep '' answer EBUSY
)")

// Nothing fires twice; a screen that somebody has turned on without CEC is watched.
SCENARIOS(Decide, AnotherBuildInTheSameBoot_KnowsWhatHasWokenTheMachine,
          "start other_build woken=timer clock_was_set=yes $1; armed =>"
          " woken timer say '' ask_late $2 clock by_hand return_in $3 wish $4 last_method $5",
          R"(
                    | +0 | 120 | none | suspend
  went_utc=-60      | -60 | 120 | none | suspend
  went_utc=-61      | +0 | 120 | none | suspend
  stays=yes         | +0 | -   | none | suspend
  ordered_on=yes    | +0 | -   | none | suspend
  wish=off_timer last_method=hibernate | +0 | 120 | off_timer | hibernate
)")

// The machine runs for 3,600 seconds: it was woken 100 seconds ago, a session began 50 seconds ago.
SCENARIOS(Decide, AnotherBuildInTheSameBoot_KnowsItsUser_AndTheScreenThatWeHaveTurnedOff,
          "machine no_cec; start other_build woken=$1 woken_at=3500000 ordered=off woken_utc=-100"
          " woken_booted=yes => woken_at 3500000 woken_utc -100 woken_booted yes;"
          "use_changed 3550000 0 0 sleep 5000 yes; armed; wait 200 => why $2;"
          "input => start_unit '$3' ordered_on $4",
          R"(
  timer   | session |    | no
  nothing | not     | on | yes
)")

// The last process has closed the input devices.
SCENARIOS(Decide, ARealTimeClockThatIsGone_LeavesTheClockKnown_InThisBoot,
          "set watched yes; start $1 => clock $2 watch_input '' ask_use 1", R"(
  same_boot | by_hand
            | unknown
)")

SCENARIOS(Decide, AClockWithoutABattery_IsUnknown_UntilItIsSet,
          "machine no_battery => clock unknown; $1 => clock $2 deliver '$3'", R"(
  ntp on no     | unknown      |
  ntp on yes    | synchronised | clock_mode time_update
  ntp no yes    | by_hand      | time_update
  clock_stepped | by_hand      | time_set time_update
  ntp no no no  | unknown      |
)")

SCENARIOS(Decide, AStepSoonAfterAWakeUp_IsNobodys,
          "machine no_battery; sleep 100 => deliver wakeup; pass $1; clock_stepped => clock $2", R"(
  1.999 | unknown
  2     | by_hand
)")

SCENARIOS(Decide, AClockThatIsBehindTheBuild_IsUnknown_AndTheDaemonHearsWhenItIsKnown,
          "start same_boot build=$1; armed; $2 => clock $3; forget; gains 200; clock_stepped =>"
          " clock by_hand deliver '$4'",
          R"(
  +0   | nothing                   | by_hand | time_set
  +1   | nothing                   | unknown | time_set time_update
  -100 | gains -200; clock_stepped | unknown | time_set time_update
)")

SCENARIOS(Decide, AClock_IsUnknownSinceTheBoot, R"(
  machine no_battery; uptime 50 0 0; start; armed; gains 0.999; forget; ntp on yes => ask_late -50
)")

SCENARIOS(Decide, AnUpdateThatTheDaemonWaitsFor_IsNotForgotten,
          "ntp on no; sleep 100; $1; forget; ntp no no => deliver time_update", R"(
  start same_boot; armed
  pass 5; clock_stepped
)")

SCENARIOS(Decide, ATimeUpdate_IsFollowedByALookAtWhatIsWanted, R"(
  machine no_battery; idle; ntp on yes => wants_idle yes; idle; tv_reports on
    => deliver ~state wants_idle no
)")

// As long as it was unknown, up to five minutes, before the daemon hears of it, and not on the way
// to a sleep.
SCENARIOS(Decide, ATimerOfAnUnknownClock_IsMadeUpFor_WhenItBecomesKnown,
          "machine no_battery; pass $1; ambient; $2; forget; late 0/+$1; times 2 $3; $4 =>"
          " tv_on $5; sleep_ends => ask_late '$6'",
          R"(
  5000 | nothing         | ntp on yes    | nothing | 1 | +4700
  50   | nothing         | ntp on yes    | nothing | 1 | +0
  5000 | start same_boot | ntp on yes    | armed   | 1 | +4700
  5000 | sleep_begins    | ntp on yes    | nothing | 0 | +4700
  5000 | nothing         | clock_stepped | nothing | 1 | +4700
  5000 | nothing         | ntp on no     | nothing | 0 |
)")

// Nor does an answer of before a standby that has failed.
SCENARIOS(Decide, ARefusedStandby_IsNoAnswerToTheQuestionBeforeAReturn,
          "program 0 +1000; sleep 985; wait 135; tv_denies standby; $1; unused => sleep '';"
          "tv_reports off; $2 => sleep '$3'",
          R"(
  nothing      | nothing    | suspend
  sleep_begins | sleep_ends |
)")

SCENARIOS(Decide, ATelevisionThatDoesNotSayThatItIsOff_KeepsTheMachineAwake, R"(
  program 0 +1000; sleep 985; screen_wanted on; tv_reports on; tv_reports off; wait 135; unused;
    tv_silent => why screen_silent sleep_again_in 900; forget; wait 900 => stage asking tv_ask 1;
    unused; tv_silent => why screen_silent stage waiting; tv_reports off => stage asking
  tv_reports off; sleep 1000; wait 10; wait 110; unused; wait 3 => why screen_silent sleep ''
)")

// Somebody's hand, or a timer of the off-action "none".
SCENARIOS(Decide, AScreenThatSomebodyTurnsOff_LeavesTheMachineAwake,
          "machine off=none; program 0 +1000; sleep 985; $1; tv_reports off => return_in $2", R"(
  nothing                  | 135
  screen_wanted off bus    | -
  screen_wanted off daemon | -
)")

SCENARIOS(Decide, AKey_CountsTheReturnAnew_AndEndsWhatTheTelevisionHasSaid, R"(
  program 0 +1000; sleep 985; wait 50; tv_reports off; input => return_in 120; wait 120; unused;
    wait 3 => why screen_silent sleep ''
)")

SCENARIOS(Decide, AReturn_IsCountedFromAnOnTimeUpToFiveMinutesAhead_OrNeverComes,
          "machine $1; use_changed 0 0 0 sleep 5000; program 0 +1000; sleep $2 =>"
          " woken timer return_in $3",
          R"(
  lead=300 | 700 | 420
  lead=301 | 699 | 120
  return=0 | 985 | -
)")

SCENARIOS(Decide, AMachineThatGoesToSleep_WatchesTheKeys_AndTurnsNothingOn, R"(
  sleep_begins => watch_input yes
  machine no_cec; screen_wanted off bus; sleep 1000; wait 60; sleep_begins; input => start_unit ''
)")

SCENARIOS(Decide, AScreenThatItsRemoteHasTurnedOff_SendsNobodyToSleepWhoCameLater, R"(
  machine follow_screen=yes; use_changed 0 0 sleep sleep 5000; tv_reports on; tv_standby
    => wish screen; pass 301; input => wish none
)")

// Nobody may tell that a user has logged out, or that a program blocks the sleep no longer. The
// machine has woken at 4,585,000 of its boot clock.
SCENARIOS(Decide, WhatPostponesASleep_IsAskedForAgain,
          "program 0 +1000; sleep 985; use_changed $1 0 $2 sleep 5000; wait 200 => why $3; forget;"
          "wait 900 => ask_use 1; use_changed 0 0 0 sleep 5000 => return_in 120",
          R"(
  4585001 | 0    | session
  0       | idle | blocked
)")

// The machine runs for 3,600 seconds: the session begins when the off-timer has waited that long.
SCENARIOS(
    Decide, AnOffTimerThatWaits_SendsNobodyToSleepWhoCameLater,
    "machine no_cec; use_changed 0 0 sleep sleep 5000 yes; off_time => watched yes read_alarm 0;"
    "pass $1; $2; times 2 use_changed $3 0 0 sleep 5000 yes => sleep '$4'",
    R"(
  300 | input   | 0       | suspend
  300 | nothing | 3900000 | suspend
  301 | input   | 0       |
  301 | nothing | 3901000 |
)")

SCENARIOS(Decide, ASleepThatFails_IsTriedAgain_LessAndLessOften_AfterNinetySecondsOfHooks, R"(
  machine no_cec; screen_wanted off => hook_in 90; job_began 1 off;
    wait 89 => why hook stage waiting watched no;
    wait 1; unused => sleep_again_in 90; sleep_answered EACCES => sleep_again_in 30;
    wait 30; unused => sleep_again_in 90; sleep_answered EACCES => sleep_again_in 60;
    wait 60; unused => sleep_again_in 90; sleep_answered EACCES => sleep_again_in 300;
    wait 300; unused => sleep_again_in 90; sleep_answered EACCES => sleep_again_in 900;
    wait 900; unused => sleep_again_in 90; sleep_answered EACCES => sleep_again_in 900
    sleep 'suspend suspend suspend suspend suspend' problems sleep say '~problem';
    sleep 100 => problems ''
)")

// One answer is lost; for a while after each sleep the clock is told not to be synchronised.
SCENARIOS(Decide, AClockThatIsNotSynchronised_IsAskedEveryFiveMinutes_UntilItIs, R"(
  clock_stepped; ntp on no => ask_clock_in 10; forget; wait 10 => ask_clock 1;
    ntp on no => ask_clock_in 30; wait 30 => ask_clock 2; ntp on no => ask_clock_in 60;
    wait 60 => ask_clock 3 ask_clock_in 300; wait 300 => ask_clock 4;
    ntp on no => ask_clock_in 300; wait 300 => ask_clock 5; ntp on no;
    clock_stepped => ask_clock_in 10; forget; ntp on yes => deliver 'clock_mode time_update' ask_clock_in -;
    forget; ntp on no => clock synchronised deliver ''
  clock_stepped; ntp on no; wait 10 => ask_clock_in 30; start same_boot; wait 30 => ask_clock_in 10
)")

SCENARIOS(Decide, AClock_IsAskedSoonAfterARestart_AndNotOftenAfterADay, R"(
  ntp on no; times 256 wait 300 => ask_clock_in 300; start same_boot; wait 300 => ask_clock_in 10
  ntp no no no => problems clock said 'problem 14 0'; ntp no no => problems '' deliver '';
    ntp on yes => deliver 'clock_mode time_update'
)")

SCENARIOS(Decide, ATimeOfTheClock_IsCountedAnew_UnlessItComesAFewMillisecondsEarlier,
          "program 0 +1000; pass 0.5; gains $1; ambient => ask_screen_in $2", R"(
  -0.1  | 989.6
  0.5   | 989.5
  0.501 | 988.999
)")

SCENARIOS(Decide, AnOffTimerThatWaits_SendsNothingToSleep_InTheSecondOfAnOnTime,
          "machine no_cec; program 0 +10; off_time => sleep_again_in 11; wait $1; unused =>"
          " sleep '$2'",
          R"(
  10 |
  11 | suspend
)")

SCENARIOS(Decide, ASleep_WaitsForWhatIsNear_AndForNothingElse,
          "machine no_cec; $1; off_time; unused => sleep '$2' why $3 sleep_again_in $4", R"(
  program 0 +10                                  |         | on_time_near | 11
  program 0 +10; pass 10                         |         | on_time_near | 1
  program 0 +34                                  |         | on_time_near | 35
  program 0 +35                                  | suspend | not          | 90
  set reach 86400; program 0 +259200; pass 86380 | suspend | not          | 90
  set reach 86400; program 0 +259200; pass 86381 |         | on_time_near | 20
  set reach 86400; program 0 +259200; pass 86400 | suspend | not          | 90
  configured hop_boots=no; set reach 86400; program 0 +259200 | suspend | not | 90
  alarm +5000; refuse EBUSY; program 0 +5000     | suspend | not          | 90
  alarm +5001; refuse EBUSY; program 0 +5000     |         | no_alarm     | 900
)")

SCENARIOS(Decide, ABlockOfIdle_DoesNotStopAnOffTimer, R"(
  machine no_cec; use_changed 0 0 idle sleep 5000; off_time; use_changed 0 0 idle sleep 5000 yes
    => sleep suspend
)")

// The first sleep was ordered 600 seconds ago.
SCENARIOS(Decide, TheSeventhSleepOfAnHour_Waits_UnlessAnAlarmHasWokenTheMachine,
          "machine no_cec; $1 $1 $1 $1 $1 $1 $2; off_time; unused => why $3 sleep_again_in $4", R"(
  off_time; unused; sleep 100; | nothing                   | often | 3000
  off_time; unused; sleep 100; | program 0 +800; sleep 201 | not   | 90
)")

SCENARIOS(Decide, AtOurEnd_AnAlarmThatHasGoneOffBeforeTheOnTime_IsWrittenForABoot, R"(
  program 0 +50; wait 40 => stands none; ended => alarm +160
)")

SCENARIOS(Decide, AJobThatEndsWhileSystemdStartsAgain_IsForgotten,
          "job_began 1 wakeup; job_began 2 wakeup; jobs_told_again; job_began 2 wakeup; $1; due =>"
          " jobs 2",
          R"(
  pass 2
  sleep 100
)")

SCENARIOS(Decide, AUnitThatARestartHasLost_IsStarted_UnlessSomethingNewerIsOrdered,
          "machine no_cec; screen_wanted on bus; ambient on; start same_boot; $1; armed;"
          "test_wake 1 100 => stage $2; forget; wait 1 => stage $2 start_unit '';"
          "wait 1 => stage asking start_unit '$3'",
          R"(
  nothing                            | waiting | on ambient
  screen_wanted off bus; ambient off | asking  |
  screen_wanted on bus               | waiting | ambient
)")

SCENARIOS(Decide, AScreenThatNobodyAnswersFor_IsDoubtedAfterASleep_UnlessItIsOrderedSince, R"(
  machine no_cec; program 0 +1000; screen_wanted on bus; sleep 985 => woken timer believed unknown
  machine no_cec; program 0 +1000; sleep_begins; slept 985; screen_wanted on bus
    => woken timer believed on
)")

SCENARIOS(Decide, AUnitThatASleepHasLost_LeavesItsScreenUnknown, R"(
  machine no_cec; screen_wanted on bus => believed on; start same_boot; sleep 100
    => believed unknown jobs ''
)")

// It may have been done or not; the mark stays until the device says what stands.
TEST_F(Decide, AWriteThatARestartHasLost_WaitsForAReading) {
  for (const bool was_done : {true, false}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    event::started again;
    again.kept = run.m;
    again.has_kept = again.same_boot = true;
    again.kept.alarm.changes = true;
    again.kept.alarm.next = {alarm_owner::kTimer, kNow + 900, kNow + 900};
    again.device.error = run.read_error = EIO;
    run.alarm = kNow + (was_done ? 900 : 500);
    run.send(again);
    EXPECT_TRUE(run.has(problem::kAlarmRead));
    run.send(event::sleep_begins{});
    for (int half = 0; half < 8; ++half) {
      run.now.boot += kSecondMs / 2;
      run.send(event::due{});
    }
    EXPECT_EQ(run.count<order::release_inhibitor>(), 0) << "the daemon has not armed its timers";
    run.send(event::armed{});
    EXPECT_EQ(run.count<order::release_inhibitor>(), 1);
    EXPECT_EQ(run.alarm, kNow + (was_done ? 900 : 500));
    run.read_error = 0;
    run.send(event::sleep_ends{});
    EXPECT_EQ(run.alarm, kNow + (was_done ? 985 : 500));
    EXPECT_EQ(run.m.alarm.foreign.owner == alarm_owner::kNone, was_done);
    EXPECT_EQ(run.count<order::write_alarm>(), was_done ? 2 : 1);
  }
}

SCENARIOS(Decide, ATimerThatARestartHasLost_IsMadeUpFor_Once,
          "pass 10; $1; pass $2; start same_boot; armed => ask_late $3", R"(
  ambient           | 0   | +9
  ambient           | 2   | +9
  ambient           | 3   | +10
  ambient           | 302 | +12
  fired             | 0   | +10
  screen_wanted off | 0   | +10
  armed             | 0   | '+0 +10'
)")

// Only a daemon that has armed its timers fires them.
SCENARIOS(Decide, ATimerOfARunThatIsNotArmed_IsMadeUpForByTheNext, R"(
  pass 10; start same_boot; pass 50; ambient; pass 50; start same_boot; armed => ask_late +0
  pass 10; start same_boot; pass 50; ambient; slept 10; ambient; armed => ask_late +0
  pass 100; ambient; slept 100; ambient => ask_late +100
)")

// Nor has one that is old: it has ended another sleep, which looks like this one.
SCENARIOS(Decide, AKeyOfBeforeTheSleep_HasNotWokenTheMachine,
          "sleep $1; pressed $2 => woken $3 user_window_in $4 say '$5'",
          R"(
  5   | 6  | nothing | 10 |
  5   | 5  | user    | -  | woken
  100 | 11 | nothing | 10 |
  100 | 10 | user    | -  | woken
)")

SCENARIOS(Decide, AWakeUpThatNobodyIsSeenAfter_IsSaid_BeforeTheNextSleep, R"(
  sleep 100; wait 5; sleep_begins => say woken said 'woken 0 0' user_window_in -
)")

SCENARIOS(Decide, AScreenWithoutCec_ComesBackWithTheFirstKey_HoweverLate,
          "machine $1; screen_wanted $2 bus; sleep 1000; wait 60 => woken nothing watched $3;"
          "input => start_unit '$4' ordered_on $5 woken $6",
          R"(
  no_cec             | off | yes | on | yes | user
  no_cec             | on  | no  |    | no  | nothing
  screen_follows=no  | off | yes |    | no  | nothing
  screen_follows=yes | off | yes | on | yes | user
)")

SCENARIOS(Decide, ATelevision_IsAskedAtOnce_WhenTheOnTimeIsNearerThanTheQuestion,
          "times 2 program 0 $1; $2 => tv_ask $3", R"(
  +0   | nothing        | 0
  +1   | nothing        | 1
  +10  | program 0 +9   | 2
  +10  | nothing        | 1
  +11  | nothing        | 0
  +100 | step_clock 100 | 0
  +101 | step_clock 100 | 1
  +110 | step_clock 100 | 1
  +111 | step_clock 100 | 0
)")

SCENARIOS(Decide, ATelevision_IsNotAsked_WhenTheOnTimeIsWantedNoLonger, R"(
  program 0 +1000 => ask_screen_in 990; unprogram => ask_screen_in -
)")

// Nobody has announced the sleep, and no clock shows how long it was.
SCENARIOS(Decide, ATestOfASleepThatOnlyItsCountShows_HasTheLengthOfTheSleep, R"(
  test_wake 7 100; unused; pass 100; counted; due => answer 100
)")

SCENARIOS(Decide, AStandby_EndsTheQuestionsOfAnOrder_AndOneThatFailsAsksAgain, R"(
  machine screen_follows=yes; screen_wanted on bus; set believed on;
    sleep_begins => believed unknown pending no screen_step_in - ordered off ordered_on no tv_off 1;
    forget; sleep_ends => tv_ask 1 leaving_in -
)")

// No call has failed, and it is not tried again every 15 minutes.
SCENARIOS(Decide, AnOffActionThatTheMachineCannotDo_IsAProblem, R"(
  use_changed 0 0 0 shutdown 5000 => problems cannot_sleep said 'problem 6 0' errors 1;
    set wish off_timer; set stage asked; set phase sleep_asked; sleep_answered EOPNOTSUPP
    => wish none problems cannot_sleep; configured off=poweroff => problems ''
  machine off=hibernate; use_changed 0 0 0 hibernate 5000 => problems ''
  machine off=none; use_changed 0 0 0 0 5000 => problems ''
)")

SCENARIOS(Decide, AnOffTimerThatWaits_IsOver_WhenTheScreenIsWantedOn, R"(
  machine no_cec; off_time; screen_wanted on bus; unused => sleep '' asked_in -
  off_time; tv_reports off => wish off_timer; tv_reports on => wish none
  machine no_cec; off_time; unused; screen_wanted on bus; sleep_answered EACCES => wish none believed on
  machine no_cec; off_time; unused; screen_wanted on bus; sleep_begins; sleep_ends => wish none
  machine follow_screen=yes; tv_reports on; tv_reports off; unused => wish screen; tv_reports on;
    tv_reports off; sleep_answered EACCES => wish screen sleep_again_in 30
  machine no_cec; off_time; unused; screen_wanted on bus; off_time; sleep_answered EACCES
    => wish off_timer sleep_again_in 30
  machine no_cec; off_time; unused; screen_wanted on bus; start same_boot; preparing no no => wish none
)")

SCENARIOS(Decide, AReturnThatFails_IsTriedAgainLater_WhereTheOffActionCannotBeDone, R"(
  machine off=hibernate; use_changed 0 0 0 sleep 5000; program 0 +1000; sleep 985; wait 135;
    tv_reports off; unused => sleep suspend problems cannot_sleep; sleep_answered EACCES
    => stage waiting why failed sleep_again_in 30
)")

SCENARIOS(Decide, AnAnswerThatDoesNotCome_IsAProblemOfLogind_AndAScreenThatIsUnknown,
          "program 0 +1000; sleep 985; wait 135; $1 => sleep ''; $2 =>"
          " problems '$3' sleep '$4' sleep_again_in $5; unused => problems ''",
          R"(
  tv_reports off | wait 3             | use |         | 30
  unused         | tv_silent          |     | suspend | 90
  unused         | wait 3             |     | suspend | 90
  unused         | tv_denies question |     | suspend | 90
)")

SCENARIOS(Decide, ASleepIsOrdered_AfterAnAnswerOfItsOwn_AndForgottenWithItsQuestion, R"(
  machine no_cec; off_time; use_changed 0 0 sleep sleep 5000 yes
    => why blocked asked_in - sleep_again_in 900; fired 20 => why job sleep_again_in -;
    job_began 1 wakeup; job_ended 1; use_changed 0 0 0 sleep 5000 => stage asking sleep '';
    unused => sleep suspend why not asked_in -
  machine no_cec; off_time; start same_boot; wait 3 => problems '' stage waiting
  machine no_cec; off_time; unused; start same_boot; preparing no no
    => phase awake stage waiting sleep_again_in -; armed; unused => sleep 'suspend suspend'
  machine no_cec; off_time; unused; wait 90 => problems sleep why failed sleep_again_in 30
  machine no_cec; off_time; unused; sleep_begins; wait 90 => problems '' phase going
  machine no_cec; off_time; unused; sleep_begins; sleep_ends
    => problems sleep why failed sleep_again_in 30
)")

// A test is no such sleep. After one, the sleeps before it do not count.
SCENARIOS(Decide, AMachineThatIsSentToSleepSixTimesAnHour_Waits, R"(
  machine no_cec; test_wake 1 100; unused; sleep 50 => answer 50; off_time; unused; sleep 100;
    off_time; unused; sleep 100; off_time; unused; sleep 100; off_time; unused; sleep 100;
    off_time; unused; sleep 100; off_time; unused => sleep suspend; sleep 100;
    test_wake 1 100; unused; sleep 50 => answer 50; off_time; unused => sleep suspend
  machine no_cec; off_time; unused; sleep 100; off_time; unused; sleep 100; off_time; unused;
    sleep 100; off_time; unused; sleep 100; off_time; unused; sleep 100; off_time; unused;
    sleep 100; off_time => why often
)")

SCENARIOS(Decide, ATestThatCannotSleep_IsOver_AndAnOrderIsNotTakenBack, R"(
  program 0 +5000; test_wake 7 100; unused; off_time => wish test alarm +100;
    sleep_answered EACCES => answer EACCES why not alarm +4985;
    test_wake 8 100; shutdown_begins => answer 'EACCES ECANCELED' sleep_again_in -
  test_wake 7 100; off_time => answer ECANCELED wish off_timer
  test_wake 7 100; configured off=poweroff => answer '' method suspend
  test_wake 7 100; unused; sleep_begins; sleep_ends => answer ECANCELED
)")

SCENARIOS(Decide, AnOffTimerThatWaits_TakesTheOffActionOfAReload, R"(
  machine no_cec; screen_wanted off; configured off=poweroff => method poweroff;
    configured off=none => method none wish none
)")

SCENARIOS(Decide, AReturn_IsCountedFromTheLastChangeOfTheScreen_AndComesSoonAfterAHop, R"(
  program 0 +1000; sleep 985; screen_wanted on; tv_reports on; pass 50; tv_reports off => return_in 120
  program 0 +1000; sleep 985; wait 50; screen_wanted on; each_second 20 tv_silent => return_in 115
  program 0 +1000; sleep 985; wait 50; screen_wanted off; wait 5; tv_reports off => return_in 115
  program 0 +1000; sleep 985; wait 50; fired 2 => return_in 120; job_began 1 wakeup; wait 10;
    job_ended 1 => return_in 120
  set reach 86400; program 0 +259200; sleep 86400 => woken hop return_in 10
)")

SCENARIOS(Decide, AnOnTimerThatIsMadeUpFor_EndsAUsersOff, R"(
  screen_wanted off bus => stays yes; zone_changed +5 yes; pass 5; late 0/+5; due
    => stays no start_unit 'off wakeup on'
)")

SCENARIOS(Decide, WhatTheLastRunWanted_HoldsUntilThisOneIsArmed, R"(
  idle; program 0 +1000; pass 5; ended => went_utc +5;
    start same_boot => wants_idle yes; idle => wanted +1000 alarm +985 wants_idle no;
    armed => wants_idle yes; idle => wanted 0 alarm 0; forget; idle => read_alarm 0
  program 0 +1000; start same_boot; armed; unprogram => wanted 0
)")

SCENARIOS(Decide, AStepOfAKnownClock_IsAllThatIsTold, R"(
  pass 100; forget; step_clock 10 => deliver time_set
)")

SCENARIOS(Decide, ARestart_AsksForWhatItMayHaveMissed, R"(
  pass 100; forget; start same_boot => ask_clock 1 ask_preparing 1 take_inhibitor 1;
    armed => ask_late +0 deliver ''
  screen_wanted on bus; tv_reports on; tv_reachable yes => believed on tv_ask 1
)")

SCENARIOS(Decide, AMachineThatLeaves_IsAskedAfter_AndTestedLater, R"(
  sleep_begins => deliver standby; forget; preparing yes no => deliver ''; test_wake 7 60 => answer EALREADY
  shutdown_begins => deliver standby; forget; preparing no yes => deliver ''
  sleep_begins; forget; start same_boot; sleep_begins => deliver standby
  shutdown_begins; forget; start same_boot; shutdown_begins => deliver standby
  use_changed 0 0 0 suspend 5000; program 0 +1000; shutdown_begins => alarm +910; sleep_begins
    => alarm +985 phase going
  sleep_begins; forget => leaving_in 60; wait 60 => ask_preparing 1 leaving_in 60
  preparing yes no => phase going deliver standby; preparing no no => phase awake take_inhibitor 1
  program 0 +1000; sleep_begins; slept 100; ambient => alarm +910; preparing no no => alarm +985
  program 0 +1000; sleep_begins; slept 100; ambient => alarm +910;
    shutdown_begins; shutdown_ends => phase awake alarm +985
)")

SCENARIOS(Decide, ATelevisionsProblem_IsOver_WhenItAnswersOrItsAdapterHasGone,
          "screen_wanted on bus; each_second 20 tv_silent => problems television;"
          "$1 => problems '' pending no screen_step_in -",
          R"(
  screen_wanted on bus; tv_reports on
  screen_wanted off bus; tv_reports off
  tv_reachable no
)")

SCENARIOS(Decide, WhatIsOrdered_IsDoneAndSaid, R"(
  fired 20 => start_unit wakeup hook_in 30; job_began 3 wakeup;
    test_wake 7 60 => answer EBUSY say '!test_begins'
  fired 20; ambient yes; job_began 5 ambient; test_wake 7 60 => answer EBUSY
  fired 20; unit_refused wakeup EIO => problems wakeup_unit jobs ''; job_began 1 wakeup => problems ''
  ambient yes => start_unit ambient; ambient no => stop_unit 1
  machine no_cec; off_time; test_wake 7 60 => answer EALREADY
  machine no_cec; off_time; unused => say 'screen_off postponed goes_to_sleep' stage asked;
    sleep_answered EBUSY => stage waiting why failed
  test_wake 7 60 => say test_begins
  program 0 +1000; late 2/+985; sleep 990 => said 'late 5 0'
  machine off=hibernate; use_changed 0 0 0 suspend 5000 => problems cannot_sleep
  screen_wanted on bus; tv_reachable yes => tv_on 2
)")
