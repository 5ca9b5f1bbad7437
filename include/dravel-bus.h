// What travels on the system bus: the service's names, the places of a record's fields in its image
// and among a method's arguments, the numbers of types and clocks. For the daemon, its tools and
// any client, in C or C++.
//
// A record's image is a byte array of signed 32-bit words, little-endian, without gaps. Words that
// no name stands for are 0 and carry no meaning. Months count from 0, years from 1900, weekdays
// from Sunday, which is 0.
#pragma once

#include "dravel-timer-types.h"

static const char kDravelBusName[] = "org.olvara.tv.system.dravel"; // also the interface's name
static const char kDravelObjectPath[] = "/org/olvara/tv/system/dravel";
static const char kStateObjectPath[] = "/org/olvara/tv/system/dravel/state";
static const char kStateInterface[] = "org.olvara.tv.system.dravel.state";

// The words of a timer's image.
enum dravel_timer_word {
  TIMER_WORD_ID,
  TIMER_WORD_TYPE,
  TIMER_WORD_PRIORITY,
  TIMER_WORD_DATE_TYPE,
  TIMER_WORD_SEC,
  TIMER_WORD_MIN,
  TIMER_WORD_HOUR,
  TIMER_WORD_MDAY,
  TIMER_WORD_MON,
  TIMER_WORD_YEAR,
  TIMER_WORD_WDAY,
  TIMER_WORD_YDAY,
  TIMER_WORD_ISDST,
  TIMER_WORD_DELAY = 15,
  TIMER_WORD_WEEK_FLAG, // 0: once; otherwise bit n repeats it on weekday n
  TIMER_WORD_DISABLE_PERIOD_EFFECT,
  TIMER_WORD_TIME_TYPE,
  TIMER_WORDS
};

// The arguments of schedule_timer.
enum dravel_timer_argument {
  TIMER_ARG_TYPE,
  TIMER_ARG_WEEK_FLAG,
  TIMER_ARG_PRIORITY,
  TIMER_ARG_DELAY,
  TIMER_ARG_YEAR,
  TIMER_ARG_MON,
  TIMER_ARG_MDAY,
  TIMER_ARG_HOUR,
  TIMER_ARG_MIN,
  TIMER_ARG_SEC,
  TIMER_ARG_WDAY,
  TIMER_ARG_YDAY,
  TIMER_ARG_ISDST,
  TIMER_ARG_DISABLE_PERIOD_EFFECT,
  TIMER_ARG_TIME_TYPE,
  TIMER_ARGS
};

// The words of a disabled period's image.
enum dravel_period_word {
  PERIOD_WORD_START_SEC,
  PERIOD_WORD_START_MIN,
  PERIOD_WORD_START_HOUR,
  PERIOD_WORD_START_MDAY,
  PERIOD_WORD_START_MON,
  PERIOD_WORD_START_YEAR,
  PERIOD_WORD_START_WDAY,
  PERIOD_WORD_START_YDAY,
  PERIOD_WORD_START_ISDST,
  PERIOD_WORD_END_SEC = 11,
  PERIOD_WORD_END_MIN,
  PERIOD_WORD_END_HOUR,
  PERIOD_WORD_END_MDAY,
  PERIOD_WORD_END_MON,
  PERIOD_WORD_END_YEAR,
  PERIOD_WORD_END_WDAY,
  PERIOD_WORD_END_YDAY,
  PERIOD_WORD_END_ISDST,
  PERIOD_WORD_START_LEAP = 22, // 1: the date is the end of February
  PERIOD_WORD_END_LEAP,
  PERIOD_WORD_ID,
  PERIOD_WORDS
};

// The arguments of request_set_disable_period.
enum dravel_period_argument {
  PERIOD_ARG_START_YEAR,
  PERIOD_ARG_START_MON,
  PERIOD_ARG_START_MDAY,
  PERIOD_ARG_START_HOUR,
  PERIOD_ARG_START_MIN,
  PERIOD_ARG_START_SEC,
  PERIOD_ARG_START_WDAY,
  PERIOD_ARG_START_YDAY,
  PERIOD_ARG_START_ISDST,
  PERIOD_ARG_END_YEAR,
  PERIOD_ARG_END_MON,
  PERIOD_ARG_END_MDAY,
  PERIOD_ARG_END_HOUR,
  PERIOD_ARG_END_MIN,
  PERIOD_ARG_END_SEC,
  PERIOD_ARG_END_WDAY,
  PERIOD_ARG_END_YDAY,
  PERIOD_ARG_END_ISDST,
  PERIOD_ARG_START_LEAP,
  PERIOD_ARG_END_LEAP,
  PERIOD_ARGS
};

// The newest layout of the database that request_copy_db copies: its `PRAGMA user_version`.
static const int kDravelDbVersion = 1;

// The daemon's limits.
enum dravel_limit {
  DRAVEL_SEARCH_DAYS = 366,          // how far it looks for the next day of a repeating timer
  DRAVEL_FARTHEST_DAYS = 365,        // how far ahead it arms a timer
  DRAVEL_STANDBY_SKIP_SECONDS = 599, // an on-timer so soon after a standby timer replaces it
  DRAVEL_GUARD_SECONDS = 59,         // the set is not woken so soon, within the current minute
  DRAVEL_LAST_YEAR = 2099,           // the TV clock wraps from its end ...
  DRAVEL_YEAR_AFTER_LAST = 2001      // ... to the begin of this one
};

// The clock that a timer's time is on.
enum dravel_time_type {
  TIME_TYPE_BROADCAST = 0, // the TV clock
  TIME_TYPE_INTERNET = 1,  // the system clock
  // As 0, but the end of February is taken from the real-time clock, and so are the moves of a
  // timer for once while the TV clock is unknown.
  TIME_TYPE_RTC = 2
};
