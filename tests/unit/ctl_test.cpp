// What dravelctl computes by itself, held against the daemon's figures.
#include "fixture.h"
#include "timers.h"
#include "words.h"

#include <cstdlib>
#include <random>

class Tool : public CleanSet {
protected:
  int any(int least, int most) { return std::uniform_int_distribution(least, most)(random_); }
  std::string near(const std::string &when, int hours) { // by up to so many hours, to the second
    return time_text(time_of(when) + static_cast<unsigned>(any(-3600 * hours, 3600 * hours)));
  }
  std::string in_year(int year) { return near(std::to_string(year) + "-07-01 00:00", 4380); }

private:
  std::mt19937 random_{2026};
};

static civil_time civil(time_value time) { return civil_time(std::chrono::seconds(time)); }

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
  for (int round = 0; round < 200; ++round) {
    restart(std::to_string(round));
    std::vector<holiday> holidays;
    for (int i = any(0, 3); i > 0; --i)
      holidays.push_back(made_from(*add_period(in_year(2024), in_year(2024), any(0, 1), any(0, 1)),
                                   holiday_from_image));
    const std::string tv = in_year(any(0, 9) == 0 ? 2099 : any(2024, 2090));
    const std::string system = near(tv, any(0, 1) * 14);
    set_clocks(tv, system, tv);
    for (int i = 0; i < 50; ++i) {
      const std::string when =
          any(0, 9) == 0 ? in_year(2001) : near(tv, any(0, 1) == 0 ? 30 : 24 * 400);
      dravel_item *item = add({any(0, 18), when, any(0, 1) * any(1, 255), any(0, 1), any(0, 2)});
      if (item->tm.tm_year != kYear2001) // moved timers lie past the end of their month
        item->tm.tm_mday += any(0, 1) * any(0, 20);
      timer_record record = made_from(*item, timer_from_image);
      const auto computed =
          next_firing(record, {civil(time_of(tv)), civil(time_of(system))}, holidays);
      ASSERT_EQ(computed ? time_text(seconds_of(*computed)) : "-1", next(item))
          << tv << " " << when;
      remove_dravel_item(item);
    }
  }
}

static snapshot snapshot_of(const std::vector<holiday> &holidays, civil_time now) {
  snapshot view;
  view.now = {now, now};
  view.holidays = holidays;
  for (const Eina_List *node = get_dravel_list(); node != nullptr; node = eina_list_next(node)) {
    const auto *item = static_cast<const dravel_item *>(eina_list_data_get(node));
    view.timers.push_back(made_from(*item, timer_from_image));
    if (const std::string when = armed(item->timer_id); !when.empty())
      view.armed[item->timer_id] = civil(time_of(when));
  }
  return view;
}

// The timer of the main loop that fires first; null when none is left.
static const loop_timer *first_to_fire() {
  const loop_timer *first = nullptr;
  for (const auto &timer : live_timers())
    if (timer->callback == ecore_timer_cb && (first == nullptr || timer->seconds < first->seconds))
      first = timer.get();
  return first;
}

static std::string text_of(const std::vector<firing> &firings) {
  std::string text;
  for (const firing &firing : firings) {
    text += std::to_string(firing.id) + "@" + time_text(seconds_of(firing.at));
    for (const int id : firing.removed)
      text += " -" + std::to_string(id);
    text += "\n";
  }
  return text;
}

// A week of expiries, one after the other as the main loop would let them come.
TEST_F(Tool, Forecast_IsWhatTheDaemonDoes) {
  constexpr const char *kStart = "21 06:59";
  for (int round = 0; round < 50; ++round) {
    restart(std::to_string(round));
    const auto *period = add_period(near(kStart, 100), near(kStart, 100));
    set_now(kStart);
    time_value now = time_of(kStart);
    for (int i = 0; i < 12; ++i) {
      const int type = any(0, 16); // off-timers stand apart, so that they disarm no on-timer
      const int minutes = 60 * any(1, 48) + (type == TIMER_TYPE_OFF ? 31 : 1);
      dravel_item *item = add({type, time_text(now + 60 * static_cast<unsigned>(minutes)),
                               any(0, 1) * any(1, 127), any(0, 1), any(0, 2)});
      if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == -1)
        remove_dravel_item(item);
    }
    adjust_dravel_all_items(nullptr, nullptr); // arms them in the order of the list
    const snapshot view = snapshot_of({made_from(*period, holiday_from_image)}, civil(now));
    const civil_time until = view.now.set + std::chrono::days(7);
    std::vector<firing> fired;
    for (const loop_timer *next = first_to_fire(); next != nullptr; next = first_to_fire()) {
      now += static_cast<time_value>(next->seconds);
      if (civil(now) > until)
        break;
      fired.push_back({static_cast<cb_data *>(next->data)->timer_item->timer_id, civil(now)});
      pass(next->seconds);
      set_now(time_text(now));
      const snapshot before = snapshot_of({}, {});
      fire(*next);
      for (const timer_record &timer : before.timers)
        if (find_dravel_item(timer.id) == nullptr)
          fired.back().removed.push_back(timer.id);
    }
    ASSERT_EQ(text_of(forecast(view, until)), text_of(fired));
  }
}

// The daemon counts the seconds that the clock shows: of an hour that it shows twice the first is
// meant, and a time that it leaves out comes so long after the change.
TEST(Words, ATimeHasTheOffsetOfTheMomentAtWhichTheDaemonMeansIt) {
  constexpr std::pair<const char *, const char *> kTimes[] = {
      {"2026-10-25 02:30", "2026-10-25T02:30:00+02:00"},
      {"2026-10-25 03:00", "2026-10-25T03:00:00+01:00"},
      {"2026-03-29 02:30", "2026-03-29T02:30:00+01:00"},
      {"2026-07-01 12:00", "2026-07-01T12:00:00+02:00"}};
  const char *before = std::getenv("TZ");
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset(); // which localtime_r leaves to others
  for (const auto &[time, iso] : kTimes)
    EXPECT_EQ(in_zone(civil(time_of(time))).iso, iso);
  EXPECT_EQ(from_utc(civil(time_of("2026-10-25 01:30"))).iso, "2026-10-25T02:30:00+01:00");
  EXPECT_EQ(civil_of(civil(time_of("2026-07-01 12:00"))), civil(time_of("2026-07-01 14:00")));
  before != nullptr ? setenv("TZ", before, 1) : unsetenv("TZ");
}
