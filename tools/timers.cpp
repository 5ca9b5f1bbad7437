#include "timers.h"

#include <algorithm>
#include <array>
#include <span>

using namespace std::chrono;

static constexpr seconds kStandbySkip{DRAVEL_STANDBY_SKIP_SECONDS};
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
          .clock = word_at(image, TIMER_WORD_TIME_TYPE)};
}

holiday holiday_from_image(const std::uint8_t *image) {
  return {.id = word_at(image, PERIOD_WORD_ID),
          .first =
              end_at(image, PERIOD_WORD_START_MON, PERIOD_WORD_START_MDAY, PERIOD_WORD_START_LEAP),
          .last = end_at(image, PERIOD_WORD_END_MON, PERIOD_WORD_END_MDAY, PERIOD_WORD_END_LEAP)};
}

static GVariant *tuple_of(std::span<const int> values) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  for (const int value : values)
    g_variant_builder_add(&builder, "i", value);
  return g_variant_builder_end(&builder);
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

GVariant *arguments_of(const timer_record &timer) {
  std::array<int, TIMER_ARGS> values{};
  values[TIMER_ARG_TYPE] = timer.type;
  values[TIMER_ARG_WEEK_FLAG] = timer.week_flag;
  values[TIMER_ARG_PRIORITY] = timer.priority;
  values[TIMER_ARG_DELAY] = timer.delay;
  const sys_days day = floor<days>(timer.at);
  fill_date(&values[TIMER_ARG_YEAR], day, timer.at - day);
  values[TIMER_ARG_DISABLE_PERIOD_EFFECT] = timer.holiday_effect;
  values[TIMER_ARG_TIME_TYPE] = timer.clock;
  return tuple_of(values);
}

// Holidays recur every year; the year only completes the dates.
GVariant *arguments_of(const holiday &holiday, year year) {
  std::array<int, PERIOD_ARGS> values{};
  const auto date = [&](const holiday_end &end) { return year / month(end.month) / day(end.day); };
  fill_date(&values[PERIOD_ARG_START_YEAR], date(holiday.first), 0s);
  fill_date(&values[PERIOD_ARG_END_YEAR], date(holiday.last), 24h - 1s);
  values[PERIOD_ARG_START_LEAP] = holiday.first.end_of_february ? 1 : 0;
  values[PERIOD_ARG_END_LEAP] = holiday.last.end_of_february ? 1 : 0;
  return tuple_of(values);
}

// --- the next firing ---

const timer_record *find_timer(const std::vector<timer_record> &timers, int id) {
  const auto found = std::ranges::find(timers, id, &timer_record::id);
  return found != timers.end() ? &*found : nullptr;
}

static year year_of(civil_time time) { return year_month_day(floor<days>(time)).year(); }

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

// The holidays that keep `timer` from firing at `at`. The February rule takes the year of the
// timer's own clock.
static const holiday *holiday_at(const timer_record &timer, civil_time at, const clocks &now,
                                 const std::vector<holiday> &holidays) {
  if (timer.holiday_effect == 0 || timer.type == TIMER_TYPE_ALWAYS)
    return nullptr;
  const year in = year_of(now.of(timer.clock));
  const auto found = std::ranges::find_if(
      holidays, [&](const holiday &period) { return is_within(period, floor<days>(at), in); });
  return found != holidays.end() ? &*found : nullptr;
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
  const holiday *rest = holiday_at(timer, at, now, holidays);
  if (rest == nullptr)
    return at;
  const sys_days last_day = sys_days(year_of(at) / month(rest->last.month) / 1) +
                            days(day_in(rest->last, year_of(own_now)) - 1);
  timer.at += last_day - floor<days>(at) + days(1);
  return without_seconds(timer);
}

static std::optional<civil_time> next_repetition(const timer_record &timer, const clocks &now,
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
    const holiday *rest = is_past ? nullptr : holiday_at(timer, at, now, holidays);
    if (!is_past && rest == nullptr)
      return at;
    if (passed != nullptr)
      passed->push_back({floor<days>(at), is_past ? 0 : rest->id});
  }
  return std::nullopt;
}

std::optional<civil_time> next_firing(timer_record &timer, const clocks &now,
                                      const std::vector<holiday> &holidays,
                                      std::vector<passed_over> *passed) {
  return timer.week_flag == 0 ? next_once(timer, now, holidays)
                              : next_repetition(timer, now, holidays, passed);
}

clocks clocks_at(const clocks &now, civil_time set) { return {set, now.system + (set - now.set)}; }

// --- timers beside each other ---

std::optional<int> ontimer_soon_after(civil_time at, const snapshot &view, int except) {
  for (const timer_record &timer : view.timers) {
    const auto armed = view.armed.find(timer.id);
    if (timer.id != except && is_ontimer_type(timer.type) && armed != view.armed.end() &&
        armed->second > at && armed->second <= at + kStandbySkip)
      return timer.id;
  }
  return std::nullopt;
}

static bool share_a_day(const timer_record &a, const timer_record &b) {
  const auto days_of = [](const timer_record &timer) {
    return timer.week_flag != 0 ? timer.week_flag
                                : 1 << weekday(floor<days>(timer.at)).c_encoding();
  };
  return (days_of(a) & days_of(b)) != 0;
}

const timer_record *coinciding_offtimer(const timer_record &timer, const snapshot &view) {
  const auto on_the_set = [&](const timer_record &any) {
    return any.at + (view.now.set - view.now.of(any.clock));
  };
  const auto found = std::ranges::find_if(view.timers, [&](const timer_record &other) {
    return other.type == TIMER_TYPE_OFF && on_the_set(other) == on_the_set(timer) &&
           share_a_day(timer, other);
  });
  return found != view.timers.end() ? &*found : nullptr;
}

// Moves a timer for one moment by whole days into the 24 hours from now.
static void anchor(timer_record &timer, const clocks &now) {
  const seconds ahead = timer.at + (now.set - now.of(timer.clock)) - now.set;
  timer.at -= floor<days>(ahead);
}

// The timer's next firing once all timers are armed again; nothing when it is then removed.
static std::optional<civil_time> armed_again(timer_record &timer, const snapshot &view) {
  if (view.armed.contains(timer.id) && timer.week_flag == 0 && timer.type != TIMER_TYPE_ALWAYS)
    anchor(timer, view.now);
  const auto next = next_firing(timer, view.now, view.holidays);
  if (!next || *next - view.now.set > kFarthest ||
      (timer.type == TIMER_TYPE_STANDBY && ontimer_soon_after(*next, view, timer.id)))
    return std::nullopt;
  return next;
}

static void arm_all(snapshot &view, int fired) {
  std::vector<timer_record> kept;
  for (timer_record &timer : view.timers) {
    const bool armed = view.armed.contains(timer.id);
    const bool left_alone =
        timer.type == TIMER_TYPE_TRANSIENT ||
        (!armed && timer.id != fired && coinciding_offtimer(timer, view) != nullptr);
    if (!left_alone) {
      const auto next = armed_again(timer, view);
      view.armed.erase(timer.id);
      if (!next)
        continue;
      view.armed.emplace(timer.id, *next);
    }
    kept.push_back(timer);
  }
  view.timers = kept;
}

// The armed timer that expires first; of those at the same second a transient one, which was armed
// before them, or else the first in the list.
static std::optional<firing> soonest(const snapshot &view) {
  std::optional<firing> found;
  for (const bool transient : {true, false})
    for (const timer_record &timer : view.timers) {
      const auto armed = view.armed.find(timer.id);
      if (armed != view.armed.end() && (timer.type == TIMER_TYPE_TRANSIENT) == transient &&
          (!found || armed->second < found->at))
        found = firing{timer.id, armed->second};
    }
  return found;
}

static std::vector<int> passed_by(const firing &first, const snapshot &view) {
  std::vector<int> passed;
  for (const timer_record &timer : view.timers)
    if (const auto armed = view.armed.find(timer.id);
        armed != view.armed.end() && armed->second == first.at && timer.id != first.id &&
        timer.type != TIMER_TYPE_TRANSIENT) // stays armed, and fires next
      passed.push_back(timer.id);
  return passed;
}

std::vector<firing> forecast(snapshot view, civil_time until) {
  std::vector<firing> firings;
  for (;;) {
    auto next = soonest(view);
    if (!next || next->at > until || next->at < view.now.set)
      return firings;
    next->passed = passed_by(*next, view);
    const auto before = view.timers;
    view.armed.erase(next->id);
    view.now = clocks_at(view.now, next->at);
    arm_all(view, next->id);
    for (const timer_record &timer : before)
      if (find_timer(view.timers, timer.id) == nullptr)
        next->removed.push_back(timer.id);
    firings.push_back(*next);
  }
}
