// The two records that the daemon keeps, and the one list of their fields. The
// row parser, the statement builders and the bus images all walk these lists.
#pragma once

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
  int time_type;             // the clock its time is on, see dravel-util.h
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

// Types whose number the daemon itself acts on.
enum timer_type : unsigned {
  TIMER_TYPE_ON = 0,
  TIMER_TYPE_OFF = 1,
  TIMER_TYPE_STANDBY = 6,
  TIMER_TYPE_ALWAYS = 9,     // neither disabled periods nor clock changes move it
  TIMER_TYPE_TRANSIENT = 10, // never stored
  TIMER_TYPE_REPLACING = 13, // takes the place of an equal one
  TIMER_TYPE_AMBIENT_ON = 15,
  TIMER_TYPE_AMBIENT_OFF = 16,
  TIMER_TYPE_ONTIMER_MAX = 254,
};

inline bool has_type(const dravel_item *item, timer_type type) {
  return static_cast<unsigned>(item->type) == type;
}

// A field: where it stands in the record, and in which 32-bit word of the
// record's image on the bus.
struct record_field {
  std::size_t offset;
  std::size_t word;
};

// The nine members of a broken-down time in column order. `word` counts from
// the broken-down time's own first word; its image takes two words more, for
// the zone members, which are always 0.
constexpr std::array<record_field, 9> kTmFields = {{
    {offsetof(std::tm, tm_sec), 0},
    {offsetof(std::tm, tm_min), 1},
    {offsetof(std::tm, tm_hour), 2},
    {offsetof(std::tm, tm_mday), 3},
    {offsetof(std::tm, tm_mon), 4},
    {offsetof(std::tm, tm_year), 5},
    {offsetof(std::tm, tm_wday), 6},
    {offsetof(std::tm, tm_yday), 7},
    {offsetof(std::tm, tm_isdst), 8},
}};

namespace record_detail {

template <std::size_t N>
constexpr void put_tm(std::array<record_field, N> &out, std::size_t at, std::size_t offset,
                      std::size_t word) {
  for (const record_field &field : kTmFields)
    out[at++] = {offset + field.offset, word + field.word};
}

constexpr std::array<record_field, 17> dravel_item_fields() {
  std::array<record_field, 17> out{};
  out[0] = {offsetof(dravel_item, timer_id), 0};
  out[1] = {offsetof(dravel_item, type), 1};
  out[2] = {offsetof(dravel_item, priority), 2};
  out[3] = {offsetof(dravel_item, date_type), 3};
  put_tm(out, 4, offsetof(dravel_item, tm), 4);
  out[13] = {offsetof(dravel_item, delay), 15};
  out[14] = {offsetof(dravel_item, week_flag), 16};
  out[15] = {offsetof(dravel_item, disable_period_effect), 17};
  out[16] = {offsetof(dravel_item, time_type), 18};
  return out;
}

constexpr std::array<record_field, 21> disabled_period_fields() {
  std::array<record_field, 21> out{};
  out[0] = {offsetof(disabled_period_item, period_id), 24};
  put_tm(out, 1, offsetof(disabled_period_item, start_tm), 0);
  put_tm(out, 10, offsetof(disabled_period_item, end_tm), 11);
  out[19] = {offsetof(disabled_period_item, start_date_leap_year_f), 22};
  out[20] = {offsetof(disabled_period_item, end_date_leap_year_f), 23};
  return out;
}

} // namespace record_detail

// The fields of a record in the order of its table's columns, from the row id
// on.
template <typename Record> inline constexpr std::array<record_field, 0> record_fields{};
template <> inline constexpr auto record_fields<dravel_item> = record_detail::dravel_item_fields();
template <>
inline constexpr auto record_fields<disabled_period_item> = record_detail::disabled_period_fields();

// The bytes of a record's image on the bus.
template <typename Record> inline constexpr std::size_t image_size = 0;
template <> inline constexpr std::size_t image_size<dravel_item> = 76;
template <> inline constexpr std::size_t image_size<disabled_period_item> = 100;

template <typename Record> int &field_of(Record &record, const record_field &field) {
  return *reinterpret_cast<int *>(reinterpret_cast<char *>(&record) + field.offset);
}

template <typename Record> int field_of(const Record &record, const record_field &field) {
  return *reinterpret_cast<const int *>(reinterpret_cast<const char *>(&record) + field.offset);
}

// Copies every listed field; the zone members keep what they hold.
template <typename Record> void copy_fields(Record &to, const Record &from) {
  for (const record_field &field : record_fields<Record>)
    field_of(to, field) = field_of(from, field);
}
