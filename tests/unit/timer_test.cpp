#include "kinto-signal-subscribe.h"
#include "scenario.h"

class Scheduler : public CleanSet {};
class WakeupTime : public CleanSet {};
class Events : public CleanSet {};

SCENARIOS(Scheduler, ATimer_IsArmedForItsDistance_OrRefused,
          "add 0 '15 22:05'; clocks '$1' '15 12:00' '$2'; add $3; schedule => is $4 armed '-, $5'",
          R"(
  15 12:00         |          | 1 '15 12:00:01'               |  0 | 15 12:00:01
  15 12:00         |          | 1 '2027-12-15 12:00'          |  0 | 2027-12-15 12:00
  15 12:00         |          | 1 '2027-12-15 12:00:01'       | -1 | -
  2099-12-31 23:59 |          | 1 '2001-01-01 00:01'          |  0 | 2100-01-01 00:00:59
                   | 15 12:00 | 1 '16 12:00'                  | -2 | -
                   | 15 12:00 | 1 '16 12:00' system           |  0 | 1970-01-02 00:00
                   |          | 1 '16 12:00' system           | -2 | -
  15 12:00         |          | 6 '15 22:00'                  | -1 | -
  15 12:00         |          | 7 '15 22:00'                  |  0 | 15 22:00
  # A time of day that lies days before its date, as a client may send it.
  15 12:00         |          | 1 '01 -12:00' daily           |  0 | 15 12:00
  15 12:00         |          | 1 '01 -12:00:-1' daily        | -1 | -
  2099-05-01 12:00 |          | 1 '01 -12:00:-1' daily        | -1 | -
  2001-05-01 12:00 |          | 1 '01 -12:00:-1' daily        | -1 | -
)")

SCENARIOS(Scheduler, ATimer_IsRefused_WithAReasonInTheLog, R"(
  add 1 '2027-12-15 12:00:01'; schedule => is -1 log '~than one year'
  add 1 '16 12:00'; refuse ecore_timer_add; schedule => is -1 log '~out of memory'
)")

// The system clock is an hour behind the TV clock.
SCENARIOS(Scheduler, AnAdjustment_MovesArmedOneShotTimers_ByWholeDays,
          "arm $3; clocks '$1' '$2' ''; adjust => armed '$4' row '$5'", R"(
  15 12:00    | 15 11:00    | 1 '18 14:00'        | 15 14:00    | 15
  15 12:00    | 15 11:00    | 1 '16 12:00:01'     | 15 12:00:01 | 15
  15 12:00    | 15 11:00    | 1 '16 12:00'        |             |
  15 12:00    | 15 11:00    | 9 '18 14:00'        | 18 14:00    | 18
  15 12:00    | 15 11:00    | 1 '18 14:00' fri    | 18 14:00    | 18
  15 12:00    | 15 11:00    | 10 '18 14:00'       | 18 14:00    |
  18 19:00    | 18 18:00    | 1 '18 14:00'        | 19 14:00    | 19
  19 14:00    | 19 13:00    | 1 '18 14:00'        |             |
  20 14:00:01 | 20 13:00:01 | 1 '18 14:00'        | 21 14:00    | 21
  15 12:00    | 15 11:00    | 1 '18 11:30' system | 15 12:30    | 15
  17 12:00    | 17 11:00    | 1 '16 10:30' system | 18 11:30    | 18
)")

// It is due when the clock ends.
SCENARIOS(Scheduler, AnAdjustment_LeavesADate_ThatNoClockReaches, R"(
  now '2106-02-01 12:00'; arm 1 '2106-02-08 06:20'; adjust => row 8; sql 'SELECT tm_hour FROM dravel' => is 6
)")

SCENARIOS(Scheduler, AnAdjustment_InOtherWays, R"(
  # with the weekday of the new date, by which an off-timer takes its on-time
  arm 0 '18 14:00'; adjust => armed '15 14:00'; sql 'SELECT tm_wday FROM dravel' => is 2;
    add 1 '15 14:00' tue => chosen -
  # the system clock is ahead
  clocks '15 12:00' '15 13:00' '15 12:00'; arm 0 '16 07:00' system; arm 4 '18 14:00' system;
    arm 1 '16 06:00' => armed '-, 18 13:00, 16 06:00'; adjust => armed '-, 15 13:00, 16 06:00'
  # it cannot be stored
  arm 1 '18 14:00'; read_only; adjust => armed '15 14:00'
)")

// From tomorrow on the on-timer follows the one of standby within ten minutes.
SCENARIOS(Scheduler, ATimerThatNeverFires_GoesWithTheNextRearming_AndIsNotWokenFor,
          "now '15 07:01'; arm 0 '01 07:05' daily; arm 1 '20 07:00' daily; arm 6 '01 07:00' daily;"
          "now '15 12:00'; program 3 '16 07:00' 6 0; $1 => listed '$2' programmed '~1 16 07:05'",
          R"(
  cancel 2   | 1
  adjust     | 1 2
  reschedule | 1 2
  idle       | 1 2
)")

SCENARIOS(Scheduler, ATimer_IsArmedByTheClockThatIsKnown, R"(
  # what is not armed is not moved
  arm 1 '18 14:00'; arm 1 '15 14:00' system; clocks '' '15 12:00' '15 12:00';
    adjust => armed '-, 1970-01-01 02:00'; adjust => armed '-, 1970-01-01 02:00'; now '15 12:00';
    adjust => armed '18 14:00, 15 14:00'; adjust => armed '15 14:00, 15 14:00' row '15 15' timers 2
  clocks '' '15 12:00' '15 12:00'; add 1 '15 14:00' system; add 1 '15 14:00'; adjust =>
    armed '1970-01-01 02:00, -'
)")

SCENARIOS(Scheduler, ARescheduling_ArmsAgain_AndMovesNothing, R"(
  arm 1 '18 14:00'; arm 10 '18 14:00'; times 2 reschedule =>
    armed '18 14:00, 18 14:00' row 18 timers 2
  arm 10 '18 14:00'; disarm @; reschedule => armed '18 14:00'
  # nor does the clock's becoming known after a sleep
  arm 1 '18 14:00'; trusted 0; tv ''; wake; now '15 12:00'; fire adjust => armed '18 14:00' row 18
  arm 1 '18 14:00'; trusted 0; tv ''; wake; now '15 12:00'; signal 108 => armed '18 14:00' row 18
)")

SCENARIOS(Scheduler, WhatIsNotArmed_CanBeCancelled, R"(
  add 1 '16 07:00'; times 2 disarm 1; cancel 1 => listed '' stored ''
  arm 0 '16 07:00'; disarm 1; forget; cancel 1 => asked '~clear_wakeup_time' listed ''
)")

// In automatic clock mode the micro-controller is given UTC, in all others local time; in Berlin an
// hour lies between the two. From the programmed second on the on-time is still held, and then it
// has passed.
SCENARIOS(WakeupTime, IsTheEarliestOnTime_ChosenAgainOnlyWhenItMatters,
          "zone Europe/Berlin; mode $1; arm 3 '16 07:00' priority=4;"
          "now '$2' => asked '~set_wakeup_time 3 16 0'; arm $3 => asked '$4' programmed '~$5'"
          " log '!Failed'",
          R"(
  1 | 15 12:00    | 0 '16 06:59'            | set_wakeup_time 0 16 06:59 | type 0 priority 0
  1 | 15 12:00    | 0 '16 07:00'            |                            | type 3 priority 4
  1 | 15 12:00    | 2 '16 07:00' priority=4 |                            | 1 16
  1 | 15 12:00    | 2 '16 07:00' priority=5 | set_wakeup_time 2 16 07:00 | 2 16
  1 | 15 12:00    | 1 '20 22:00'            | set_wakeup_time 3 16 07:00 | 1 16
  1 | 15 12:00    | 1 '16 07:00'            | clear_wakeup_time 0 0      | 0 1970
  1 | 15 12:00    | 10 '16 06:00'           |                            | 1 16
  1 | 15 12:00    | 16 '16 06:00'           |                            | 1 16
  1 | 16 07:00    | 0 '16 08:00'            |                            | 1 16
  1 | 16 07:00:01 | 0 '16 08:00'            | set_wakeup_time 0 16 08:00 | 2 16
  1 | 16 07:00:01 | 1 '16 08:00'            |                            | 1 16
  0 | 15 12:00    | 0 '16 06:30'            | set_wakeup_time 0 16 05:30 | 2 16 05:30 utc
  0 | 15 12:00    | 0 '16 07:30'            |                            | 1 16 06:00 utc
  0 | 15 12:00    | 1 '20 22:00'            | set_wakeup_time 3 16 06:00 | 1 16
  0 | 15 12:00    | 2 '16 07:00' priority=5 | set_wakeup_time 2 16 06:00 | 2 16
  0 | 16 06:30    | 0 '16 08:00'            |                            | 1 16
  0 | 16 07:00:01 | 1 '16 08:00'            |                            | 1 16
  2 | 15 12:00    | 0 '16 06:30'            | set_wakeup_time 0 16 06:30 | 2 16
)")

SCENARIOS(WakeupTime, IsLeft_OrTaken, R"(
  # no longer any timer's, by an on-timer for which there is no choice: only an off-timer clears it
  add 1 '17 07:00'; program 99 '18 07:00' 0 0; forget; arm 0 '17 07:00' => asked ''
  # by an on-time within the current minute
  clocks '15 12:00:15' '15 11:59:45' ''; arm 0 '15 12:00' system => asked ''
  clocks '15 12:00' '15 11:59:01' ''; arm 0 '15 12:00' system => asked ''
  clocks '15 12:00:40' '15 12:00:30' ''; arm 0 '15 12:01' system =>
    asked 'set_wakeup_time 0 15 12:01:10'
  clocks '15 12:00:15' '15 11:59:45' ''; arm 2 '16 07:00' => asked 'set_wakeup_time 2 16 07:00';
    arm 0 '15 12:00' system => asked '' programmed '~1 16'
  # the clocks differ: it is held until the TV clock has passed it
  clocks '15 12:00' '15 13:00' ''; arm 0 '15 12:30'; forget; arm 2 '15 15:00' system => asked '';
    clocks '15 12:30:01' '15 11:00' ''; arm 3 '15 13:00' system =>
    asked 'set_wakeup_time 3 15 14:30:01'
  # the mode of the clock cannot be read
  zone Europe/Berlin; mode 0; refuse GetClockMode; arm 0 '16 07:00' =>
    asked 'set_wakeup_time 0 16 07:00'
  # the programmed timer's priority outlasts a standby
  arm 3 '16 07:00' priority=4; standby; forget; arm 2 '16 07:00' priority=4 => asked '';
    arm 2 '16 07:00' priority=5 => asked 'set_wakeup_time 2 16 07:00'
  # evicted
  take 2 '15 12:30'; times 79 take 2 '17 07:00'; forget;
    take 2 '18 07:00' => asked 'clear_wakeup_time 0 0; set_wakeup_time 2 17 07:00';
    standby => asked 'set_wakeup_time 2 17 07:00' marked 2
  # an off-timer is, which took the on-timer's time
  take 1 '15 20:00'; take 0 '15 20:00'; times 78 take 16 '17 07:00'; forget; take 16 '17 07:00' =>
    asked 'set_wakeup_time 0 15 20:00'
  # moved by a holiday
  add 0 '16 07:00' holidays; add 1 '30 22:00'; period '16 00:00' '20 00:00' => chosen '1 21 07:00'
)")

SCENARIOS(WakeupTime, FollowsTheNextOnTimer_WhenItsTimerIsCancelled, R"(
  arm 0 '16 07:00'; arm 2 '17 07:00'; arm 3 '18 07:00'; forget; cancel 3 => asked '';
    cancel 1 => asked 'clear_wakeup_time 0 0; set_wakeup_time 2 17 07:00';
    cancel 2 => asked 'clear_wakeup_time 0 0; clear_wakeup_time 0 0'
  # The first one never fires: nothing is programmed until the next adjustment.
  add 0 '14 07:00'; arm 1 '20 22:00'; cancel 2; arm 0 '17 07:00'; arm 0 '18 07:00'; forget;
    cancel 3 => asked 'clear_wakeup_time 0 0'; adjust => asked '~set_wakeup_time 0 16 07:00'
)")

SCENARIOS(WakeupTime, ReturnsToTheOnTimer_WhoseOffTimerIsCancelled, R"(
  arm 0 '16 07:00'; arm 1 '16 07:00' => armed '-, 16 07:00'
    asked 'set_wakeup_time 0 16 07:00; clear_wakeup_time 0 0'; cancel 2 =>
    asked 'set_wakeup_time 0 16 07:00'; arm 1 '20 07:00'; cancel 3 => armed '16 07:00' timers 1;
    # which has taken nothing from it
    disarm 1; arm 10 '20 07:00'; cancel @ => armed '-'
)")

// Configured times meet on the TV clock; the system clock is an hour behind. The 16th is a
// Wednesday. Only the first on-timer is armed.
SCENARIOS(WakeupTime, LeavesOut_WhatAnOffTimerTakesAway,
          "clocks '15 12:00' '15 11:00' '15 12:00'; arm $1; $2; tv '$5' => chosen '$3' timers $4",
          R"(
  0 '16 07:00'             | add 1 '16 07:00:01'                        | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00'             | add 1 '16 07:00'                           | -          | 0 | 15 12:00
  1 '16 07:00'             |                                            | -          | 1 | 15 12:00
  0 '16 07:00'             | add 1 '16 07:00' wed fri                   | -          | 0 | 15 12:00
  0 '16 07:00'             | add 1 '16 07:00' thu fri                   | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00'             | add 1 '17 07:00' wed                       | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00' wed thu fri | add 1 '16 07:00' wed; add 1 '16 07:00' thu | 1 18 07:00 | 1 | 15 12:00
  # A one-shot off-timer flips its weekday, so that a second one gives it back.
  0 '16 07:00' wed thu     | add 1 '16 07:00'                           | 1 17 07:00 | 1 | 15 12:00
  0 '16 07:00' mon         | add 1 '16 07:00'                           | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00' wed         | add 1 '16 07:00'                           | -          | 1 | 15 12:00
  0 '16 07:00' mon         | add 1 '16 07:00'; add 1 '16 07:00' thu     | 1 21 07:00 | 1 | 15 12:00
  0 '16 07:00' wed         | times 2 add 1 '16 07:00'                   | 1 16 07:00 | 1 | 15 12:00
  # Only the weekdays 0 to 31 have a bit.
  0 '20 07:00'             | add 1 '20 07:00' sun                       | -          | 0 | 15 12:00
  0 '16 07:00' wday=31     | add 1 '16 07:00' days=-2147483648          | -          | 0 | 15 12:00
  0 '16 07:00' wday=32     | add 1 '16 07:00' sun                       | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00' wday=-1     | add 1 '16 07:00' days=-2147483648          | 1 16 07:00 | 1 | 15 12:00
  0 '16 07:00'             | add 1 '16 06:00' system                    | -          | 0 | 15 12:00
  0 '16 06:00' system      | add 1 '16 07:00'                           | -          | 0 | 15 12:00
  # While the TV clock is unknown, its timers take no part.
  0 '16 07:00'             | add 1 '16 06:00' system                    | -          | 1 |
  0 '16 06:00' system      | add 1 '16 07:00'                           | 1 16 07:00 | 1 |
)")

SCENARIOS(WakeupTime, MarksItsRow_WhenTheSetGoesToSleep, R"(
  arm 0 '16 07:00'; awake 1; trusted 1; ambient_off => marked 1 trusted 0 awake 0
  arm 0 '16 07:00'; reschedule =>
    asked 'set_wakeup_time 0 16 07:00; clear_wakeup_time 0 0; set_wakeup_time 0 16 07:00';
    standby => asked 'set_wakeup_time 0 16 07:00' marked 1 trusted 0 awake 0
  # nothing is programmed
  add 0 '16 07:00'; ambient_off => marked ''; standby => asked '' marked '' trusted 0 awake 0
  arm 0 '16 07:00'; standby; unprogram; forget; ambient_off; standby => asked '' marked 1
)")

SCENARIOS(WakeupTime, ThatIsRefused_StaysInTheRecord_AndIsClearedButForItsType, R"(
  program 3 '16 08:00' 255 0 => is 0 asked '' programmed '~0 1970'
  refuse set_wakeup_time clear_wakeup_time; arm 0 '16 07:00'; arm 1 '20 22:00'
    => log '~Failed to schedule micom offtimer' programmed '~1 16 07:00 type 0';
    program 1 '16 08:00' 254 0 => is -1 programmed '~1 16 08:00'; update_ontime => marked '';
    unprogram => programmed '0 1970-01-01 00:00 type 254 priority -1'
)")

// Each case with a wake-up and with the ambient mode of a sleeping set, and twice.
SCENARIOS(Events, AWakeup_DisarmsTheProgrammedTimer_AndWaitsForAnUntrustedClock,
          "arm 0 '16 07:00'; trusted $2; awake 0; clocks '$3' '15 12:00' '15 12:00';"
          "state 4 1 => awake 0; times 2 $1 => armed '$4' waits '$5' awake 1;"
          "now '15 12:00'; $6 => trusted 1 files '!finish' armed '$7'",
          R"(
  wake      | 1 | 15 12:00 | -        | finish 90            |             | -
  wake      | 0 | 15 12:00 | 16 07:00 | adjust 60, finish 90 | fire adjust | 16 07:00
  wake      | 0 |          | -        | adjust 60, finish 90 | fire adjust | 16 07:00
  state 4 2 | 1 | 15 12:00 | -        | finish 90            |             | -
  state 4 2 | 0 | 15 12:00 | 16 07:00 | adjust 60, finish 90 | fire adjust | 16 07:00
  state 4 2 | 0 |          | -        | adjust 60, finish 90 | fire adjust | 16 07:00
)")

TEST_F(Events, Subscriptions_StopAtTheFirstRefusal_AndAreMadeOnce) {
  std::string made;
  for (const std::string refused :
       {"poweroff", "standby", "wakeup", "ambient_poweroff", "state_changed_event"}) {
    restart(refused);
    fini_power_state_handler();
    unregister_ambient_mode_cb();
    ambient_poweroff_received = false;
    standin().refused = {"device_power_subscribe_" + refused, "device_power_unsubscribe_poweroff"};
    const bool is_needed = refused != "state_changed_event";
    EXPECT_EQ(init_power_state_handler(), is_needed ? -1 : 0);
    register_ambient_mode_cb();
    register_ambient_mode_cb();
    EXPECT_EQ(subscriptions(), made + (is_needed ? "state_changed_event signal" : "signal"));
    fini_power_state_handler();
    unregister_ambient_mode_cb();
    EXPECT_EQ(subscriptions(), made.empty() ? "signal" : "poweroff signal");
    made += refused + " ";
  }
}

TEST_F(Events, TheTimeSignal_IsLeftOnce_AndDoneWithoutWhenItIsRefused) {
  for (const char *refused : {"Unsubscribe", "DestroySignalSubscriber"}) { // either is enough
    standin().refused = {refused, "CreateSignalSubscriber"};
    unsubscribe_kinto_signal_cb();
    EXPECT_EQ(standin_subscribers("signal"), 0) << refused;
    unsubscribe_kinto_signal_cb();
    subscribe_kinto_signal_cb();
    standin().refused.clear();
    subscribe_kinto_signal_cb();
  }
}

// What a client sees when the first timer is armed: the flags are set before, the marker after it.
SCENARIOS(Events, FlagsComeBeforeArming_AndTheMarkerAfterIt, R"(
  add 1 '16 07:00'; idle => armed_while 'trusted 1 awake 1' files '~finish'
  add 1 '16 07:00'; trusted 0; signal 108 => armed_while 'trusted 1 awake 1' files '~finish'
  add 1 '16 07:00'; trusted 0; awake 0; wake => armed_while 'trusted 0 awake 1' files '!finish';
    fire adjust => armed_while 'trusted 1 awake 1' files '!finish' waits 'finish 90'
  add 1 '16 07:00'; trusted 0; tv ''; signal 108; now '15 12:00';
    fire clock => armed_while 'trusted 1 awake 1' files '~finish'
)")

SCENARIOS(Events, ASwitchOfTheClockMode_RetriesUntilTheTimeIsUpdated, R"(
  arm 1 '18 14:00'; idle; times 2 switch_mode 0 => waits 'retry 0.1'; switch_mode 1 => waits '';
    switch_mode 0; fire retry => is 'goes on'; signal 108 => armed '18 14:00';
    fire retry => is ended armed '15 14:00';
    now '15 16:00'; switch_mode 0 => waits '' armed '16 14:00'
  # Only manual mode forgets the update.
  idle; switch_mode 0; updated 1; arm 1 '18 14:00'; switch_mode 1 =>
    waits '' updated 0 armed '18 14:00'
  idle; switch_mode 0; updated 1; arm 1 '18 14:00'; switch_mode 2 =>
    waits '' updated 1 armed '18 14:00'
  idle; switch_mode 0; updated 1; arm 1 '18 14:00'; switch_mode -1 =>
    waits '' updated 1 armed '18 14:00'
  idle; switch_mode 0; updated 1; refuse settings_get_int; switch_mode 1 =>
    waits 'retry 0.1' updated 1
  # what cannot be read is not automatic
  mode 0; refuse settings_get_int; signal 108 => updated 0; refuse; signal 108 => updated 1
)")

SCENARIOS(Events, ATimeUpdate_AnswersTheWait_InTheStatesThatCount,
          "add 0 '16 07:00'; trusted 0; wake; disarm 1; power $2; ambient $3; trusted $1;"
          "signal 109 => armed '-'; signal 108 => armed '$4' waits '$5' files '$6finish' updated 0",
          R"(
  0 | 0 | 0 | 16 07:00 |                      | ~
  0 | 2 | 0 | 16 07:00 |                      | ~
  0 | 4 | 2 | 16 07:00 |                      | ~
  0 | 4 | 1 | -        | adjust 60, finish 90 | !
  0 | 1 | 2 | -        | adjust 60, finish 90 | !
  1 | 0 | 0 | -        | adjust 60, finish 90 | !
)")

SCENARIOS(Events, TwoTimeUpdatesWithoutAClock_StartTwoPolls_AndBothEnd, R"(
  add 0 '16 07:00'; trusted 0; clocks '' '15 12:00' '15 12:00';
    times 2 signal 108 => waits 'clock 0.1, clock 0.1, finish 90';
    fire clock => is 'goes on' trusted 0;
    now '15 12:00'; times 2 fire clock => is ended trusted 1 armed '16 07:00' waits ''
)")

// A second one begins from its full length.
SCENARIOS(Events, Waits_HaveTheirLengths_AndASecondReplacesTheFirst, R"(
  elapse 0.05; init => waits 'finish 90'
  trusted 0; tv ''; wake; elapse 0.05; wake => waits 'adjust 60, finish 89.95'
  switch_mode 0; elapse 0.05; switch_mode 0 => waits 'finish 89.95, retry 0.1'
)")

SCENARIOS(Events, APowerOff_DistrustsTheClock_AndResetsTheStoreByItsOption,
          "forget; off $1 => log '~power_poweroff_cb > poweroff option: $1' files '$2' trusted 0;"
          "read_only => log '$3success delete'",
          R"(
  -1 | ~.dravel.db .wakeup_dravel.db | ~
  0  | ~.dravel.db .wakeup_dravel.db | ~
  1  | ~.dravel.db .wakeup_dravel.db | ~
  11 | ~.dravel.db .wakeup_dravel.db | ~
  12 | ~.dravel.db .wakeup_dravel.db | ~
  13 | !db | !
  14 | !db | !
  15 | ~.dravel.db .wakeup_dravel.db | ~
)")

SCENARIOS(Events, Markers_TellARelaunch_AndEndTheWait, R"(
  idle => waits '' files '~dravel_init dravel_finish' relaunched 0; shell 'rm /tmp/dravel_finish';
    tv ''; trusted 1; init => relaunched 1 trusted 0 files '!finish';
    fire finish => is ended files '~finish'
)")

// Only a marker's existence means something.
SCENARIOS(Events, Markers_AreEmptyFiles_AndStayAsTheyAre, R"(
  idle; shell 'stat -c %a,%s /tmp/dravel_*' => is '644,0 644,0';
    shell 'echo kept >/tmp/dravel_finish'; trusted 0; signal 108;
    shell 'cat /tmp/dravel_finish' => is kept
  shell 'ln -sf /no/where /tmp/dravel_init'; forget; init =>
    log '~init_dravel > /tmp/dravel_init create failed' relaunched 0
)")

// What the daemon finds when it starts: a past one-shot timer goes, holidays count, and all events
// of the set arrive. While the clock is not known, nothing is armed and the wait goes on.
SCENARIOS(Events, AStart_LoadsTimersAndHolidays,
          "add 3 '15 11:00'; add 4 '17 07:00'; add 4 '01 07:00' wed thu holidays;"
          "period '16 00:00' '16 00:00'; start_again '$1'; idle => armed '$2' trusted $3 awake 1"
          " files '$4finish' waits '$5'",
          R"(
  15 12:00 | 17 07:00, 17 07:00 | 1 | ~ |
           | -, -, -            | 0 | ! | finish 90
)")

SCENARIOS(Events, AStart_SubscribesToEverything, R"(
  idle => subscribed 'poweroff standby wakeup ambient_poweroff state_changed_event signal'
)")
