// What dravelctl computes by itself, held against the daemon's figures.
#include "commands.h"
#include "dravel-manager.h"
#include "fixture.h"
#include "judgement.h"
#include "linux_clock.h"
#include "parse.h"
#include "words.h"

#include <system_log.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <regex>

class Tool : public CleanSet {
protected:
  template <typename Number> Number any(Number least, Number most) {
    return std::uniform_int_distribution<Number>(least, most)(source);
  }
  std::string near(const std::string &when, int hours) { // by up to so many hours, to the second
    return time_text(time_of(when) + static_cast<unsigned>(any(-3600 * hours, 3600 * hours)));
  }
  std::string in_year(int year) { return near(std::to_string(year) + "-07-01 00:00", 4380); }

  std::mt19937 source{2026};
};

constexpr const char *kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";

static void set_zone(const char *zone) { // null: the machine's
  zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ");
  tzset();
}

static civil_time civil(std::int64_t time) { return civil_time(std::chrono::seconds(time)); }

static time_value seconds_of(civil_time time) {
  return static_cast<time_value>(time.time_since_epoch().count());
}

template <typename Record, typename Made>
static Made made_from(const Record &record, Made (*from)(const std::uint8_t *)) {
  std::array<std::int32_t, kImageWords<Record>> image{};
  for (const record_field &field : kRecordFields<Record>)
    image[field.word] = field_of(record, field);
  return from(reinterpret_cast<const std::uint8_t *>(image.data()));
}

TEST_F(Tool, NextFiring_IsTheDaemons_For10000TimersAndClocks) {
  system_log_threshold = SYSTEM_LOG_ERROR; // the log would take most of the time
  dravel_item *item = add({TIMER_TYPE_OFF, kNoon});
  for (int round = 0; round < 200; ++round) {
    std::vector<disabled_period_item *> periods;
    std::vector<holiday> holidays;
    for (int i = any(0, 3); i > 0; --i) {
      periods.push_back(add_period(in_year(2024), in_year(2024), any(0, 1), any(0, 1)));
      holidays.push_back(made_from(*periods.back(), holiday_from_image));
    }
    const std::string tv = in_year(any(0, 9) == 0 ? 2099 : any(2024, 2090));
    const std::string system = near(tv, any(0, 1) * 14);
    set_clocks(tv, system, tv);
    for (int i = 0; i < 50; ++i) {
      const std::string when =
          any(0, 9) == 0 ? in_year(2001) : near(tv, any(0, 1) == 0 ? 30 : 24 * 400);
      const std::unique_ptr<dravel_item, void (*)(void *)> values(
          make({any(0, 18), when, any(0, 1) * any(1, 255), any(0, 1), any(0, 2)}), std::free);
      values->timer_id = item->timer_id;
      *item = *values;
      if (item->tm.tm_year != kYear2001) // moved timers lie past the end of their month
        item->tm.tm_mday += any(0, 1) * any(0, 20);
      timer_record record = made_from(*item, timer_from_image);
      const auto computed =
          next_firing(record, {civil(time_of(tv)), civil(time_of(system))}, holidays);
      ASSERT_EQ(computed ? time_text(seconds_of(*computed)) : "-1", next(item))
          << tv << " " << when << " round " << round;
    }
    for (disabled_period_item *period : periods)
      remove_disabled_period_item(period);
  }
  system_log_threshold = SYSTEM_LOG_DEBUG;
}

constexpr int kTimers = 12; // of a round
constexpr std::int64_t kHour = 3600, kDay = 24 * kHour;
constexpr const char *kZones[] = {"Europe/Berlin",       "America/New_York", "America/Santiago",
                                  "Australia/Lord_Howe", "Asia/Kolkata",     "Africa/Casablanca"};

struct seen_firing {
  std::int64_t utc;
  int id;
  std::vector<int> due; // armed for that second
};

class Forecasts : public Tool {
protected:
  void start(const std::string &zone, bool is_linux, unsigned seed);
  void end();
  void compare();

private:
  std::string any_time();
  void add_any();
  void go_to(std::int64_t utc);
  std::vector<seen_firing> run_until(std::int64_t until);

  std::int64_t utc_ = 0;
  std::vector<std::int64_t> times_; // that several timers have
  bool is_linux_ = false;
};

// --- the two platforms ---

void Forecasts::go_to(std::int64_t utc) {
  pass(static_cast<double>(utc - utc_));
  utc_ = utc;
  set_system_clock(utc);
  if (!is_linux_)
    return;
  standin_set_tv_clock(static_cast<time_value>(linux_tv_clock(utc)));
  standin_set_rtc(static_cast<time_value>(utc));
}

void Forecasts::start(const std::string &zone, bool is_linux, unsigned seed) {
  end_clean_set();
  clear_set();
  source.seed(seed);
  is_linux_ = is_linux;
  system_log_threshold = SYSTEM_LOG_ERROR; // the log would take most of the time
  set_zone((":" + zone).c_str());
  times_.clear();
  utc_ = time_of("2024-01-01 00:00") + any(std::int64_t{0}, 4380 * kDay);
  const std::int64_t change = linux_transition_after(utc_);
  if (change != 0 && any(0, 2) != 0)
    utc_ = change - any(std::int64_t{0}, 3 * kDay);
  if (!is_linux) {
    standin_reset();
    standin_set_time_zone(zone.c_str());
  }
  go_to(utc_);
  EXPECT_EQ(start_dravel(), 0);
  run_idle_steps();
  if (is_linux)
    start_linux_clock(utc_, standin_announce_time_set);
  else
    standin_follow_transitions();
  for (int i = any(0, 2); i > 0; --i) {
    const std::int64_t from = linux_tv_clock(utc_) + kDay * any(-1, 9);
    const auto day = [](std::int64_t at) { return time_text(static_cast<time_value>(at)); };
    call("request_set_disable_period",
         period_arguments(day(from), day(from + kDay * any(0, 3)), any(0, 1)));
  }
  for (int i = 0; i < kTimers; ++i) {
    add_any();
    run_until(utc_ + (any(0, 1) != 0 ? any(1, 7000) : 0));
  }
}

void Forecasts::end() {
  system_log_threshold = SYSTEM_LOG_DEBUG;
  if (!is_linux_)
    standin_set_time_zone("UTC"); // which ends the wait for a change
  set_zone(nullptr);
}

// --- what happens ---

// The loop's timers and, on the Linux platform, what it waits for, in their order.
std::vector<seen_firing> Forecasts::run_until(std::int64_t until) {
  for (std::vector<seen_firing> seen;;) {
    const loop_timer *first = nullptr;
    for (const auto &timer : live_timers())
      if (first == nullptr || timer->seconds < first->seconds)
        first = timer.get();
    const std::int64_t at = first == nullptr ? INT64_MAX : utc_ + std::llround(first->seconds);
    const std::int64_t due = is_linux_ ? next_of_linux_clock() : INT64_MAX;
    if (std::min(at, due) > until)
      return go_to(until), seen;
    go_to(std::min(at, due));
    if (due <= at) {
      pass_linux_clock(utc_);
      continue;
    }
    seen_firing next{at, 0, {}};
    for (const auto &timer : live_timers())
      if (timer->callback == ecore_timer_cb && timer->seconds == first->seconds)
        next.due.push_back(static_cast<cb_data *>(timer->data)->timer_item->timer_id);
    logged_events();
    fire(*first);
    if (std::sscanf(logged_events().c_str(), "fired %d", &next.id) == 1)
      seen.push_back(next);
  }
}

// --- timers at random ---

std::string Forecasts::any_time() {
  std::int64_t at = linux_tv_clock(utc_) + 60 * any(std::int64_t{1}, 48 * std::int64_t{60});
  if (!times_.empty() && any(0, 2) == 0)
    at = times_[any(std::size_t{0}, times_.size() - 1)] + (any(0, 3) == 0 ? 60 * any(-9, 9) : 0);
  else if (any(0, 4) == 0)
    at += kDay * any(0, 40);
  times_.push_back(at);
  return time_text(static_cast<time_value>(at + (any(0, 5) == 0 ? any(0, 59) : 0)));
}

static snapshot present_view(civil_time system) {
  snapshot view;
  view.now = {civil(standin_tv_clock()), system};
  view.follows_zone = true;
  const micom_ontimer_record &ontime = programmed_ontimer();
  view.wakeup = {ontime.timer_id, civil(ontime.ontime), 0, ontime.is_utc != 0};
  for (const Eina_List *node = get_dravel_list(); node != nullptr; node = eina_list_next(node)) {
    const auto *item = static_cast<const dravel_item *>(eina_list_data_get(node));
    view.timers.push_back(made_from(*item, timer_from_image));
    if (const std::string when = armed(item->timer_id); !when.empty())
      view.armed[item->timer_id] = civil(time_of(when));
  }
  for (const Eina_List *node = get_disabled_period_list(); node != nullptr;
       node = eina_list_next(node))
    view.holidays.push_back(made_from(
        *static_cast<const disabled_period_item *>(eina_list_data_get(node)), holiday_from_image));
  return view;
}

void Forecasts::add_any() {
  const int type = any(0, 3) == 0 ? static_cast<int>(TIMER_TYPE_OFF) : any(0, 16);
  const auto arguments = arguments_of({type, any_time(), any(0, 1) * any(1, 127), any(0, 1),
                                       any(0, 3) == 0 ? any(1, 2) : 0, any(0, 2)});
  const snapshot before = present_view(civil(utc_));
  const int id = call("schedule_timer", arguments).at(0);
  const snapshot after = present_view(civil(utc_));
  const timer_words image = words_of(id, arguments);
  const auto wanted = timer_from_image(reinterpret_cast<const std::uint8_t *>(image.data()));
  if (after.timers.size() == before.timers.size() + 1) {
    const snapshot told = with_timer(wanted, before);
    EXPECT_EQ(told.armed, after.armed);
    EXPECT_TRUE(
        std::ranges::equal(told.timers, after.timers, {}, &timer_record::id, &timer_record::id));
  }
}

// "3@1797940800" for each firing.
static void append_firing(std::string &text, int id, std::int64_t utc) {
  text += std::to_string(id) + "@" + std::to_string(utc) + "\n";
}

// Of the timers of one second the one that has fired is told, where week leaves it open.
static std::string week_of(const json &week, const std::vector<seen_firing> &seen) {
  std::string text;
  auto next = seen.begin();
  for (const json &told : week["firings"]) {
    const auto passed = told["passed"].get<std::vector<int>>();
    const bool is_open = next != seen.end() && std::ranges::find(passed, next->id) != passed.end();
    append_firing(text, is_open ? next->id : told["id"].get<int>(), told["at_seconds"]);
    next += next == seen.end() ? 0 : 1;
  }
  return text;
}

// When the timer fires, or may fire, by what explain says. The next time that is told is the one
// that it is armed for, which may not come.
static std::vector<std::int64_t> explained(const json &told,
                                           const std::vector<std::int64_t> &seen) {
  std::vector<std::int64_t> times;
  if (!seen.empty() && told["next_seconds"] == seen[0])
    times.push_back(seen[0]);
  for (const json &following : told["following"])
    times.push_back(following["at_seconds"]);
  return times;
}

void Forecasts::compare() {
  const snapshot view = present_view(civil(utc_));
  const outlook ahead = forecast(view);
  const json week = json_of_week(view);
  std::vector<json> told;
  for (const timer_record &timer : view.timers)
    told.push_back(json_of_explanation(timer, view, ahead));

  const auto end_of_week = floor<std::chrono::days>(view.now.set) + std::chrono::days(7);
  const std::int64_t until = utc_ + 34 * kDay; // five weeks of a clock that may go forward are less
  const std::vector<seen_firing> seen = run_until(until);

  // Where a transient timer fires beside another, which of them goes first is open, and so is
  // whether the rest is armed for this second once or twice. Two rounds in a thousand have that.
  if (std::ranges::adjacent_find(seen, [](const seen_firing &a, const seen_firing &b) {
        return a.utc == b.utc && std::min(a.id, b.id) < 0;
      }) != seen.end())
    return;

  std::string week_seen;
  for (const seen_firing &firing : seen)
    if (civil_of(civil(firing.utc)) < end_of_week)
      append_firing(week_seen, firing.id, firing.utc);
  ASSERT_EQ(week_of(week, seen), week_seen) << json(told);
  for (const json &timer : told) {
    std::vector<std::int64_t> times;
    for (const seen_firing &firing : seen)
      if (std::ranges::find(firing.due, timer["id"].get<int>()) != firing.due.end())
        times.push_back(firing.utc);
    times.erase(std::unique(times.begin(), times.end()), times.end()); // due beside one that fired
    times.resize(std::min(times.size(), timer["days"].empty() ? std::size_t{1} : std::size_t{5}));
    auto explanation = explained(timer, times);
    std::erase_if(explanation, [&](std::int64_t time) { return time > until; });
    ASSERT_EQ(explanation, times) << timer;
  }
}

TEST_F(Forecasts, ExplainAndWeek_AreWhatTheDaemonThenDoes) {
  const auto number = [](const char *name, int otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : otherwise;
  };
  std::vector<int> seeds(
      static_cast<std::size_t>((number("FORECASTS", 300) + kTimers - 1) / kTimers));
  std::iota(seeds.begin(), seeds.end(), number("FORECASTS_SEED", 1));
  // Holidays after each other move a new timer once more, or once less, than its place in the list
  // suggests; the week ends at a midnight that sets the clock back.
  seeds.insert(seeds.end(), {1531, 20032, 24932});
  for (const int seed : seeds)
    for (const bool is_linux : {false, true}) {
      const std::string zone = kZones[static_cast<std::size_t>(seed) % std::size(kZones)];
      SCOPED_TRACE("FORECASTS_SEED=" + std::to_string(seed) + (is_linux ? " linux " : " ") + zone);
      start(zone, is_linux, static_cast<unsigned>(seed));
      compare();
      end();
      ASSERT_FALSE(HasFailure());
    }
}

// At noon before the night in which the clock goes from 02:00 to 03:00.
TEST(Explanation, TellsOfTheJumpOfTheClock) {
  const civil_time night = civil(time_of("2027-03-28 02:30"));
  set_zone(kBerlin);
  for (const auto &[week_flag, sentence] :
       {std::pair{0, "moves it to Mon 2027-03-29 02:30:00."}, {127, "leaves this time out."}}) {
    snapshot view;
    view.now = {civil(time_of("2027-03-27 12:00")), civil(time_of("2027-03-27 11:00"))};
    view.follows_zone = true;
    view.timers = {{.id = 3, .type = TIMER_TYPE_OFF, .at = night, .week_flag = week_flag}};
    view.armed[3] = night;
    const outlook ahead = forecast(view);
    EXPECT_EQ(
        fate_of(view.timers[0], ahead),
        std::string("The clock jumps from 02:00 to 03:00 before it, on Sun 2027-03-28, and ") +
            sentence);
    EXPECT_EQ(span_until(civil(time_of("2027-03-28 12:00")), view), "23 hours");
  }
  set_zone(nullptr);
}

// Another timer's firing moves one for a date into the next day; without one it keeps its date.
TEST(Explanation, GoesOnUntilATimerForAFarDateHasFired) {
  snapshot view;
  view.now = {civil(time_of("15 12:00")), civil(time_of("15 12:00"))};
  view.timers = {{.id = 1, .type = TIMER_TYPE_OFF, .at = civil(time_of("2027-12-14 18:00"))}};
  view.armed[1] = view.timers[0].at;
  EXPECT_EQ(forecast(view).firings.at(0).at, view.armed[1]);
  view.timers.push_back({.id = 2, .type = TIMER_TYPE_OFF, .at = {}, .week_flag = 127});
  view.armed[2] = civil(time_of("16 00:00"));
  EXPECT_EQ(forecast(view).firings.size(), 36U); // of five weeks
}

// --- what people write ---

class Words : public testing::Test {
protected:
  Words() { set_zone(kBerlin); }
  ~Words() override { set_zone(nullptr); }

  // Rows of what is written and what it means, parted by semicolons.
  template <typename Read> static void check(const std::string &rows, Read read) {
    static const std::regex each(R"(\s*([^>;]*?) *> *([^;\n]*))");
    for (std::sregex_iterator row(rows.begin(), rows.end(), each), end; row != end; ++row)
      EXPECT_EQ(read((*row)[1].str()), (*row)[2].str()) << (*row)[1];
  }
  static std::string meant(const std::string &text) { // of an off-timer, on a Tuesday at noon
    const civil_time now = civil(time_of(kNoon));
    const auto time = parse_time(text, now);
    return time ? time_text(seconds_of(requested_time(*time, {.type = TIMER_TYPE_OFF}, {now, now})))
                : "";
  }
  static std::string days(const std::string &text) {
    return short_days_text(parse_days(text).value_or(0));
  }
};

TEST_F(Words, ATime_IsUnderstoodAsPeopleWriteIt) {
  check(R"(
    7:00 > 16 07:00; 19:30:15 > 15 19:30:15; 7 > 16 07:00; 7:30 pm > 15 19:30; 12am > 16 00:00
    tomorrow 7:00 > 16 07:00; 7:00 tomorrow > 16 07:00; today 13:00 > 15 13:00
    tomorrow noon > 16 12:00; fri 20:00 > 18 20:00; Tuesday 11:00 > 22 11:00
    tue 12:00:01 > 15 12:00:01; next fri 7pm > 18 19:00; next tue midnight > 22 00:00
    +1h45m > 15 13:45; +90s > 15 12:01:30; +45 min > 15 12:45; +1w > 22 12:00
    2026-12-24 18:00 > 24 18:00; 2026-12-24T08:00-05:00 > 24 14:00
    Thu 2026-12-24 07:00:00 UTC > 24 08:00; 2026-12-24T07:00Z > 24 08:00
    13pm > ; 0am > ; +45 > ; 7:00:60 > ; 25:00 > ; 7:0 > ; +9999w > ; 7:00 8:00 > ; 08:00-05:00 > ;
    2026-12-24T08:00+05:60 > ; 2026-12-24T08:00+24:30 > ;
    2026-14-24 18:00 > ; Fri 2026-12-24 07:00 > ; today tomorrow 7:00 > ; mo 7:00 > )",
        meant);
}

TEST_F(Words, Days_AreUnderstood_AndWrittenShort) {
  check(R"(
    mon-fri > weekdays; mon, tue Fri > Mon,Tue,Fri; sat-mon > Mon,Sat,Sun; someday > once; > once
    mon-thu sat sun > Mon-Thu,Sat,Sun; tue-fri,sun > Tue-Fri,Sun; lun-mer > once)",
        days);
}

TEST_F(Words, AreWrappedBehindTheLastThatFits) {
  EXPECT_EQ(wrapped("ab cd ef ghijkl m", 5, 1), "ab cd\n ef\n ghijkl\n m");
}

TEST_F(Words, AreUnderstoodInTheUsersLanguageToo) {
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  check("mi. 7:00 > 16 07:00; wed 7:00 > 16 07:00; m 7:00 > ", meant);
  setenv("LC_ALL", "fr_FR.UTF-8", 1);
  check("lun-mer > Mon-Wed; dim > Sun", days);
  unsetenv("LC_ALL");
}

TEST_F(Words, ATimeThatHasPassed_IsTheLastOneThatFits) {
  check(R"(
    yesterday > 23 00:00; yesterday 20:00 > 23 20:00; today > 24 00:00; 7:00 > 24 07:00; 20:00 > 23 20:00
    thu > 24 00:00; thu 20:00 > 17 20:00; fri 8pm > 18 20:00; 2026-12-01 > 01 00:00; 3h > 24 09:00
    -1d > 23 12:00; 2 hours ago > 24 10:00; tomorrow > ; 2026-12-25 > ; wed 2026-12-24 > ; 99999w >
    next fri > ; 7 > 24 07:00; > ; soon > )",
        [](const std::string &text) { // on a Thursday at noon
          const auto past = parse_past(text, civil(time_of("24 12:00")));
          return past ? time_text(seconds_of(*past)) : "";
        });
}

TEST_F(Words, ASpan_HasTheLargestUnitOfWhichThereAreTwo) {
  check("119 > 119 seconds; 120 > 2 minutes; 7199 > 119 minutes; 7200 > 2 hours; 172799 > 47 hours;"
        "172800 > 2 days; 1 > 1 second; -1 > 0 seconds",
        [](const std::string &span) { return span_text(std::chrono::seconds(std::stoi(span))); });
}

// The daemon counts the seconds that the clock shows: of an hour that it shows twice the first is
// meant, and a time that it leaves out comes so long after the change.
TEST_F(Words, ATimeHasTheOffsetOfTheMomentAtWhichTheDaemonMeansIt) {
  check(R"(
    2026-10-25 02:30 > 2026-10-25T02:30:00+02:00; 2026-10-25 03:00 > 2026-10-25T03:00:00+01:00
    2026-03-29 02:30 > 2026-03-29T02:30:00+01:00; 2026-07-01 12:00 > 2026-07-01T12:00:00+02:00)",
        [](const std::string &time) { return in_zone(civil(time_of(time))).iso; });
  EXPECT_EQ(from_utc(civil(time_of("2026-10-25 01:30"))).iso, "2026-10-25T02:30:00+01:00");
  EXPECT_EQ(civil_of(civil(time_of("2026-07-01 12:00"))), civil(time_of("2026-07-01 14:00")));
}
