// The two records that the daemon keeps, and the one table of each record's fields. The row parser,
// the statement builders, the bus images and the readers of method arguments walk these tables.
#pragma once

#include "dravel-bus.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

// One on/off timer. Times are broken-down times read as UTC.
struct dravel_item {
  int timer_id; // row id; kUnstoredTimerId before it is stored; below 0 when never stored
  int type;     // compared as unsigned: a negative type lies above every bound
  int priority; // of timers with equal expiry the higher comes first
  int date_type;
  std::tm tm; // time of day, and for one-shot timers the date
  int delay;
  int week_flag;             // 0: one-shot; otherwise bit n repeats it on tm_wday n
  int disable_period_effect; // non-zero: disabled periods skip or move it
  int time_type;             // the clock its time is on, see dravel-bus.h
};

// One yearly date range in which timers that opt in do not act.
struct disabled_period_item {
  std::tm start_tm;
  std::tm end_tm;
  int start_date_leap_year_f; // 1: the date is the end of February
  int end_date_leap_year_f;
  int period_id; // row id
};

static_assert(sizeof(int) == 4, "records are made of 32-bit fields");

constexpr int kUnstoredTimerId = -10;

inline bool has_type(const dravel_item *item, dravel_timer_type type) {
  return static_cast<unsigned>(item->type) == type;
}

// A field: where it stands in the record, which word of the record's image it fills, and which
// argument of the method that makes such a record gives it.
struct record_field {
  std::size_t offset;
  std::size_t word;
  int argument;
};

constexpr int kNoArgument = -1;

// The fields of a record in the order of its table's columns, from the row id on.
template <typename Record> inline constexpr int kRecordFields = 0;

template <>
inline constexpr auto kRecordFields<dravel_item> = std::to_array<record_field>({
    {offsetof(dravel_item, timer_id), TIMER_WORD_ID, kNoArgument},
    {offsetof(dravel_item, type), TIMER_WORD_TYPE, TIMER_ARG_TYPE},
    {offsetof(dravel_item, priority), TIMER_WORD_PRIORITY, TIMER_ARG_PRIORITY},
    {offsetof(dravel_item, date_type), TIMER_WORD_DATE_TYPE, kNoArgument},
    {offsetof(dravel_item, tm.tm_sec), TIMER_WORD_SEC, TIMER_ARG_SEC},
    {offsetof(dravel_item, tm.tm_min), TIMER_WORD_MIN, TIMER_ARG_MIN},
    {offsetof(dravel_item, tm.tm_hour), TIMER_WORD_HOUR, TIMER_ARG_HOUR},
    {offsetof(dravel_item, tm.tm_mday), TIMER_WORD_MDAY, TIMER_ARG_MDAY},
    {offsetof(dravel_item, tm.tm_mon), TIMER_WORD_MON, TIMER_ARG_MON},
    {offsetof(dravel_item, tm.tm_year), TIMER_WORD_YEAR, TIMER_ARG_YEAR},
    {offsetof(dravel_item, tm.tm_wday), TIMER_WORD_WDAY, TIMER_ARG_WDAY},
    {offsetof(dravel_item, tm.tm_yday), TIMER_WORD_YDAY, TIMER_ARG_YDAY},
    {offsetof(dravel_item, tm.tm_isdst), TIMER_WORD_ISDST, TIMER_ARG_ISDST},
    {offsetof(dravel_item, delay), TIMER_WORD_DELAY, TIMER_ARG_DELAY},
    {offsetof(dravel_item, week_flag), TIMER_WORD_WEEK_FLAG, TIMER_ARG_WEEK_FLAG},
    {offsetof(dravel_item, disable_period_effect), TIMER_WORD_DISABLE_PERIOD_EFFECT,
     TIMER_ARG_DISABLE_PERIOD_EFFECT},
    {offsetof(dravel_item, time_type), TIMER_WORD_TIME_TYPE, TIMER_ARG_TIME_TYPE},
});

template <>
inline constexpr auto kRecordFields<disabled_period_item> = std::to_array<record_field>({
    {offsetof(disabled_period_item, period_id), PERIOD_WORD_ID, kNoArgument},
    {offsetof(disabled_period_item, start_tm.tm_sec), PERIOD_WORD_START_SEC, PERIOD_ARG_START_SEC},
    {offsetof(disabled_period_item, start_tm.tm_min), PERIOD_WORD_START_MIN, PERIOD_ARG_START_MIN},
    {offsetof(disabled_period_item, start_tm.tm_hour), PERIOD_WORD_START_HOUR,
     PERIOD_ARG_START_HOUR},
    {offsetof(disabled_period_item, start_tm.tm_mday), PERIOD_WORD_START_MDAY,
     PERIOD_ARG_START_MDAY},
    {offsetof(disabled_period_item, start_tm.tm_mon), PERIOD_WORD_START_MON, PERIOD_ARG_START_MON},
    {offsetof(disabled_period_item, start_tm.tm_year), PERIOD_WORD_START_YEAR,
     PERIOD_ARG_START_YEAR},
    {offsetof(disabled_period_item, start_tm.tm_wday), PERIOD_WORD_START_WDAY,
     PERIOD_ARG_START_WDAY},
    {offsetof(disabled_period_item, start_tm.tm_yday), PERIOD_WORD_START_YDAY,
     PERIOD_ARG_START_YDAY},
    {offsetof(disabled_period_item, start_tm.tm_isdst), PERIOD_WORD_START_ISDST,
     PERIOD_ARG_START_ISDST},
    {offsetof(disabled_period_item, end_tm.tm_sec), PERIOD_WORD_END_SEC, PERIOD_ARG_END_SEC},
    {offsetof(disabled_period_item, end_tm.tm_min), PERIOD_WORD_END_MIN, PERIOD_ARG_END_MIN},
    {offsetof(disabled_period_item, end_tm.tm_hour), PERIOD_WORD_END_HOUR, PERIOD_ARG_END_HOUR},
    {offsetof(disabled_period_item, end_tm.tm_mday), PERIOD_WORD_END_MDAY, PERIOD_ARG_END_MDAY},
    {offsetof(disabled_period_item, end_tm.tm_mon), PERIOD_WORD_END_MON, PERIOD_ARG_END_MON},
    {offsetof(disabled_period_item, end_tm.tm_year), PERIOD_WORD_END_YEAR, PERIOD_ARG_END_YEAR},
    {offsetof(disabled_period_item, end_tm.tm_wday), PERIOD_WORD_END_WDAY, PERIOD_ARG_END_WDAY},
    {offsetof(disabled_period_item, end_tm.tm_yday), PERIOD_WORD_END_YDAY, PERIOD_ARG_END_YDAY},
    {offsetof(disabled_period_item, end_tm.tm_isdst), PERIOD_WORD_END_ISDST, PERIOD_ARG_END_ISDST},
    {offsetof(disabled_period_item, start_date_leap_year_f), PERIOD_WORD_START_LEAP,
     PERIOD_ARG_START_LEAP},
    {offsetof(disabled_period_item, end_date_leap_year_f), PERIOD_WORD_END_LEAP,
     PERIOD_ARG_END_LEAP},
});

// The words of a record's image, and the arguments of the method that makes one.
template <typename Record> inline constexpr std::size_t kImageWords = 0;
template <> inline constexpr std::size_t kImageWords<dravel_item> = TIMER_WORDS;
template <> inline constexpr std::size_t kImageWords<disabled_period_item> = PERIOD_WORDS;
template <typename Record> inline constexpr std::size_t kArgumentCount = 0;
template <> inline constexpr std::size_t kArgumentCount<dravel_item> = TIMER_ARGS;
template <> inline constexpr std::size_t kArgumentCount<disabled_period_item> = PERIOD_ARGS;

template <typename Record> int &field_of(Record &record, const record_field &field) {
  return *reinterpret_cast<int *>(reinterpret_cast<char *>(&record) + field.offset);
}

template <typename Record> int field_of(const Record &record, const record_field &field) {
  return *reinterpret_cast<const int *>(reinterpret_cast<const char *>(&record) + field.offset);
}

// Copies every listed field; the zone members of `to` are not changed.
template <typename Record> void copy_fields(Record &to, const Record &from) {
  for (const record_field &field : kRecordFields<Record>)
    field_of(to, field) = field_of(from, field);
}
