#include "scenario.h"

class Log : public CleanSet {};

// A line that moves to another priority changes its letter.
SCENARIOS(Log, LinesHaveTheirPriorities, "$1; forget; $2 => levels $3", R"(
  times 0 | start_again '15 12:00' | PPPPPPIDPPII
  times 0 | idle | PPPPP
  times 0 | arm 1 '16 07:00'; cancel | PPPIIDIIIPIIIDDPPIDPDPP
  arm 0 '16 07:00'; power 2 | fire_at '16 07:00' | IPIIIDDIDDPIIPIDPPIIIIPPP
  times 0 | standby; wake; state 4 2; ambient_off; off 13 | PPDDPPIPIIDPPIPPIII
  times 0 | time_set; signal 108 | PPIIPI
  times 0 | call dravel_get_timer_by_id 7; call request_wakeup_timer 0 | IPP
  arm 0 '16 07:00'; power 2; close_store; refuse device_power_set_wakeup_reason
    device_power_set_state set_wakeup_time clear_wakeup_time GetCurrentTime read_rtc |
    expire; program 1 '16 07:00'; unprogram |
    PIIIDDIDDEEEEEEDPEIEI
)")

// Timer 1 is armed in a pass before.
SCENARIOS(Log, WhatHappensToATimer_IsKeptAsAnEvent_AndTheOnTimeOnceInAPass,
          "arm $1; $2; idle; forget; $3; idle => kept '$4'", R"(
  1 '16 07:00' | times 0 | fire_at '16 07:00' | fired 1, removed 1 fired
  1 '16 07:00' daily | call request_halt_offtimers 1 | fire_at '16 07:00' | fired 1, halted 1
  2 '16 07:00' daily | call request_halt_ontimers 1 | fire_at '16 07:00' |
    fired 1, halted 1, programmed 1
  1 '16 07:00' daily holidays | period '16 00:00' '16 00:00' | fire_at '16 07:00' | skipped 1
  0 '16 07:00' | times 0 | cancel 1 | removed 1 cancelled, programmed 0
  0 '16 07:00' | cancel 1 | refuse set_wakeup_time; program 2 '16 06:00' 0 0; unprogram |
  0 '16 07:00' | times 0 | arm 2 '16 06:00'; arm 2 '16 05:00' | programmed 3
  0 '16 07:00' | times 0 | adjust |
  0 '16 07:00' | refuse set_wakeup_time | update_ontime | refused 1
  # The on-timers at the head of the list have no next expiry.
  2 '16 07:00' system |
    arm 2 '16 08:00' system; times 78 add 0 '16 06:00'; clocks '' '15 12:00' '15 12:00' |
    take 0 '16 06:00' | removed 1 evicted, programmed 2
)")

SCENARIOS(Log, TheOnTime_IsKeptInWords, "mode $1; arm 0 '$2'; $3; idle => kept_text 'the set $4'",
          R"(
  1 | 16 07:08:00 | times 0 | will wake for timer 1 at 2026-12-16 07:08:00
  0 | 16 07:09:00 | times 0 | will wake for timer 1 at 2026-12-16 07:09:00 UTC
  1 | 16 07:10:00 | refuse set_wakeup_time; update_ontime |
    refused to wake for timer 1 at 2026-12-16 07:10:00
)")
