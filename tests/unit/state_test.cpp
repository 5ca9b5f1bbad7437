#include "scenario.h"

class State : public CleanSet {};

// What happens in one pass of the main loop to timers that were there before it. A move counts
// once.
SCENARIOS(State, WhatHappensToTimersInAPass_IsToldInOrder_WithTheReasonsOfThoseThatGo,
          "idle; $1; pass; $2 => told '$3'", R"(
  arm 1 '16 07:00' | fire_at '16 07:00' | Removed 1 fired, Clock, Armed, Stored
  # Its next time is too far ahead once the clock is set back; with holidays it has none.
  arm 1 '16 07:00' | fire_at '2024-11-01 07:00' | Removed 1 fired, Clock, Armed, Stored
  arm 1 '16 07:00' daily holidays; fire_at '16 07:00' |
    period '2026-01-01 00:00' '31 00:00'; adjust |
    Removed 1 never, Clock, Armed, Stored, DisabledPeriods
  arm 1 '16 07:00' | cancel 1 | Removed 1 cancelled, Armed, Stored
  times 80 add 0 '16 07:00' | add 1 '16 07:00' | Removed 1 evicted, Added 81
  arm 1 '16 07:00' | now '16 07:00'; adjust | Removed 1 past, Clock, Armed, Stored
  arm 0 '16 07:00:01' | now '16 07:00'; reschedule | Removed 1 past, Clock, Armed, Wakeup, Stored
  add 1 '15 11:00' system | clocks '15 10:00' '15 12:00' ''; reschedule |
    Removed 1 past, Clock, Stored
  add 0 '2027-12-15 12:01' | reschedule | Removed 1 never, Clock, Stored
  add 0 '2027-12-15 12:01'; arm 1 '20 07:00' | cancel 2 |
    Removed 2 cancelled, Removed 1 never, Armed, Stored
  arm 1 '15 11:00' daily holidays | period '2026-01-01 00:00' '31 00:00'; adjust |
    Removed 1 never, Clock, Armed, Stored, DisabledPeriods
  arm 1 '16 07:00' | close_store; cancel 1 | Removed 1 lost, Armed, Stored
  # It has no row that brings it back, and stays listed when it has fired.
  add 10 '16 07:00' | close_store; cancel @ | Removed @ cancelled
  arm 10 '16 07:00'; fire_at '16 07:00' | reschedule | Removed @ fired, Clock
  arm 1 '15 14:00' holidays; arm 1 '16 07:00' | cancel 2; add 1 '16 07:00' |
    Removed 2 cancelled, Added 3, Armed
  arm 1 '18 14:00' holidays | adjust | Changed 1, Clock, Armed
  arm 1 '15 14:00' holidays | adjust | Clock
  arm 1 '15 14:00' holidays | period '15 00:00' '17 00:00'; adjust |
    Changed 1, Clock, Armed, DisabledPeriods
  arm 1 '18 14:00' holidays | period '15 00:00' '17 00:00'; adjust | Changed 1, Clock, DisabledPeriods
  | period '18 00:00' '20 00:00'; add 1 '18 14:00' holidays |
    Added 1, Stored, DisabledPeriods
  period '18 00:00' '20 00:00' | call request_remove_disabled_period 1 | Clock, DisabledPeriods
  times 2 arm 1 '16 07:00' | fire_at '16 07:00' | Removed 1 fired, Removed 2 past, Clock, Armed, Stored
  | off 0 | ClockConfirmed
  | time_set | Clock
  | zone Europe/Berlin | Clock
  | now '16 07:00'; idle |
  | call request_halt_ontimers 1 | HaltOn
  | call request_halt_offtimers 1 | HaltOff
  arm 1 '15 14:00' holidays | call request_set_disable_period_effect 1 1 | Clock
  arm 1 '15 14:00' holidays | call request_set_disable_period_effect 1 0 | Changed 1, Clock
  | call request_set_disable_period_effect 1 0 |
  | sql 'INSERT INTO dravel(type) VALUES(2)'; load | Stored
  arm 0 '16 07:00' | disarm 1 | Armed
  arm 0 '16 07:00' | unprogram | Wakeup
  arm 0 '16 07:00' | mode 0; update_ontime | Wakeup
)")

// Every 20 ms. What changes nothing begins no burst; what changes back within one is told.
SCENARIOS(State, ABurst_IsGathered, R"(
  idle; pass; call request_halt_ontimers 1; idle; call request_halt_ontimers 2; idle 0.005;
    call request_halt_ontimers 3; idle 0.005 => last_wait 0.015; fire_last => is ended
    told 'HaltOn, HaltOn'; call request_halt_ontimers 3; idle; call request_halt_ontimers 4; idle 0;
    call request_halt_ontimers 5; idle 0.005; call request_halt_ontimers 4; idle 0.005;
    fire_last => told 'HaltOn, HaltOn'
)")
