#include "timers.h"

#include <algorithm>

using namespace std::chrono;

static constexpr year kLastYear{DRAVEL_LAST_YEAR};
static constexpr year kYearAfterLast{DRAVEL_YEAR_AFTER_LAST};

// --- images and arguments ---

static std::int32_t word_at(const std::uint8_t *image, std::size_t word) {
  std::uint32_t value = 0;
  for (std::size_t byte = 0; byte < 4; ++byte)
    value |= std::uint32_t{image[4 * word + byte]} << (8 * byte);
  return static_cast<std::int32_t>(value);
}

// The daemon lists what a client gave it: a number that is no date is only kept within bounds.
static int date_word(const std::uint8_t *image, std::size_t word) {
  constexpr int kBound = 30000;
  return std::clamp(word_at(image, word), -kBound, kBound);
}

static civil_time time_at(const std::uint8_t *image) {
  const auto field = [&](dravel_timer_word word) { return date_word(image, word); };
  // The day of a moved timer may lie past the end of its month.
  const year_month month =
      year(field(TIMER_WORD_YEAR) + 1900) / January + months(field(TIMER_WORD_MON));
  return sys_days(month / 1) + days(field(TIMER_WORD_MDAY) - 1) + hours(field(TIMER_WORD_HOUR)) +
         minutes(field(TIMER_WORD_MIN)) + seconds(field(TIMER_WORD_SEC));
}

static holiday_end end_at(const std::uint8_t *image, dravel_period_word month,
                          dravel_period_word day, dravel_period_word leap) {
  return {static_cast<unsigned>(std::max(date_word(image, month), -1) + 1),
          static_cast<unsigned>(std::max(date_word(image, day), 0)), word_at(image, leap) == 1};
}

timer_record timer_from_image(const std::uint8_t *image) {
  return {.id = word_at(image, TIMER_WORD_ID),
          .type = word_at(image, TIMER_WORD_TYPE),
          .priority = word_at(image, TIMER_WORD_PRIORITY),
          .at = time_at(image),
          .delay = word_at(image, TIMER_WORD_DELAY),
          .week_flag = word_at(image, TIMER_WORD_WEEK_FLAG),
          .holiday_effect = word_at(image, TIMER_WORD_DISABLE_PERIOD_EFFECT),
          .clock = word_at(image, TIMER_WORD_TIME_TYPE),
          .stored_day = word_at(image, TIMER_WORD_WDAY)};
}

holiday holiday_from_image(const std::uint8_t *image) {
  return {.id = word_at(image, PERIOD_WORD_ID),
          .first =
              end_at(image, PERIOD_WORD_START_MON, PERIOD_WORD_START_MDAY, PERIOD_WORD_START_LEAP),
          .last = end_at(image, PERIOD_WORD_END_MON, PERIOD_WORD_END_MDAY, PERIOD_WORD_END_LEAP)};
}

// The nine arguments of a date, which both methods take in the same order.
static void fill_date(int *fields, year_month_day date, seconds time) {
  const sys_days day(date);
  const hh_mm_ss clock(time);
  const int values[] = {int(date.year()) - 1900,
                        static_cast<int>(unsigned(date.month())) - 1,
                        static_cast<int>(unsigned(date.day())),
                        static_cast<int>(clock.hours().count()),
                        static_cast<int>(clock.minutes().count()),
                        static_cast<int>(clock.seconds().count()),
                        static_cast<int>(weekday(day).c_encoding()),
                        static_cast<int>((day - sys_days(date.year() / January / 1)).count()),
                        0}; // no daylight saving: the fields stand as they are typed
  std::ranges::copy(values, fields);
}

std::vector<int> arguments_of(const timer_record &timer) {
  std::vector<int> values(TIMER_ARGS);
  values[TIMER_ARG_TYPE] = timer.type;
  values[TIMER_ARG_WEEK_FLAG] = timer.week_flag;
  values[TIMER_ARG_PRIORITY] = timer.priority;
  values[TIMER_ARG_DELAY] = timer.delay;
  const sys_days day = floor<days>(timer.at);
  fill_date(&values[TIMER_ARG_YEAR], day, timer.at - day);
  values[TIMER_ARG_DISABLE_PERIOD_EFFECT] = timer.holiday_effect;
  values[TIMER_ARG_TIME_TYPE] = timer.clock;
  return values;
}

// Holidays recur every year; the year only completes the dates.
std::vector<int> arguments_of(const holiday &holiday, year year) {
  std::vector<int> values(PERIOD_ARGS);
  const auto date = [&](const holiday_end &end) { return year / month(end.month) / day(end.day); };
  fill_date(&values[PERIOD_ARG_START_YEAR], date(holiday.first), 0s);
  fill_date(&values[PERIOD_ARG_END_YEAR], date(holiday.last), 24h - 1s);
  values[PERIOD_ARG_START_LEAP] = holiday.first.end_of_february ? 1 : 0;
  values[PERIOD_ARG_END_LEAP] = holiday.last.end_of_february ? 1 : 0;
  return values;
}

// --- the next firing ---

const timer_record *find_timer(const std::vector<timer_record> &timers, int id) {
  const auto found = std::ranges::find(timers, id, &timer_record::id);
  return found != timers.end() ? &*found : nullptr;
}

std::optional<civil_time> armed_for(int id, const snapshot &view) {
  const auto armed = view.armed.find(id);
  return armed != view.armed.end() ? std::optional(armed->second) : std::nullopt;
}

static year year_of(civil_time time) { return year_month_day(floor<days>(time)).year(); }

int weekday_of(civil_time time) {
  return static_cast<int>(weekday(floor<days>(time)).c_encoding());
}

static bool has_day(int week_flag, sys_days day) {
  return (week_flag >> weekday(day).c_encoding() & 1) != 0;
}

static unsigned day_in(const holiday_end &end, year in) {
  const bool follows_year = end.end_of_february && end.month == 2 && end.day >= 28;
  return follows_year ? (in.is_leap() ? 29 : 28) : end.day;
}

static bool is_within(const holiday &period, sys_days day, year february_of) {
  const auto key = [&](const holiday_end &end) {
    return 100 * end.month + day_in(end, february_of);
  };
  const year_month_day date(day);
  const unsigned wanted = 100 * unsigned(date.month()) + unsigned(date.day());
  return key(period.first) <= wanted && wanted <= key(period.last);
}

std::vector<int> holidays_on(sys_days day, const snapshot &view) {
  std::vector<int> ids;
  for (const holiday &period : view.holidays)
    if (is_within(period, day, year_of(view.now.set)))
      ids.push_back(period.id);
  return ids;
}

// The February rule takes the year of the timer's own clock, the day after the holidays that of
// `at`.
int rest_at(timer_record &timer, civil_time at, const clocks &now,
            const std::vector<holiday> &holidays) {
  if (timer.holiday_effect == 0 || timer.type == TIMER_TYPE_ALWAYS)
    return 0;
  const year february_of = year_of(now.of(timer.clock));
  const auto found = std::ranges::find_if(holidays, [&](const holiday &period) {
    return is_within(period, floor<days>(at), february_of);
  });
  if (found == holidays.end())
    return 0;
  if (timer.week_flag == 0) {
    timer.stored_day = timer.stored_day.value_or(weekday_of(timer.at)); // the date alone moves
    const sys_days last_day = sys_days(year_of(at) / month(found->last.month) / 1) +
                              days(day_in(found->last, february_of) - 1);
    timer.at += last_day - floor<days>(at) + days(1);
  }
  return found->id;
}

static civil_time without_seconds(const timer_record &timer) {
  return is_ontimer_type(timer.type) ? floor<minutes>(timer.at) : timer.at;
}

static std::optional<civil_time> next_once(timer_record &timer, const clocks &now,
                                           const std::vector<holiday> &holidays) {
  const civil_time own_now = now.of(timer.clock);
  const civil_time at = without_seconds(timer) + (now.set - own_now);
  const bool after_last_year = year_of(timer.at) == kYearAfterLast && year_of(own_now) == kLastYear;
  if (at <= now.set && !after_last_year)
    return std::nullopt;
  return rest_at(timer, at, now, holidays) == 0 ? at : without_seconds(timer);
}

static std::optional<civil_time> next_repetition(timer_record &timer, const clocks &now,
                                                 const std::vector<holiday> &holidays,
                                                 std::vector<passed_over> *passed) {
  const civil_time own_now = now.of(timer.clock);
  const sys_days today = floor<days>(own_now);
  seconds time_of_day = timer.at - floor<days>(timer.at);
  // The daemon drops an on-timer's seconds only when it looks on one of the timer's days.
  if (is_ontimer_type(timer.type) && has_day(timer.week_flag, today))
    time_of_day = floor<minutes>(time_of_day);

  for (int k = 0; k <= DRAVEL_SEARCH_DAYS; ++k) {
    const sys_days day = today + days(k);
    if (!has_day(timer.week_flag, day))
      continue;
    const civil_time at = day + time_of_day + (now.set - own_now);
    const bool is_past = k == 0 && at <= now.set;
    const int rest = is_past ? 0 : rest_at(timer, at, now, holidays);
    if (!is_past && rest == 0)
      return at;
    if (passed != nullptr)
      passed->push_back({floor<days>(at), rest});
  }
  return std::nullopt;
}

std::optional<civil_time> next_firing(timer_record &timer, const clocks &now,
                                      const std::vector<holiday> &holidays,
                                      std::vector<passed_over> *passed) {
  return timer.week_flag == 0 ? next_once(timer, now, holidays)
                              : next_repetition(timer, now, holidays, passed);
}
