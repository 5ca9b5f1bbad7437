// What dravelctl computes by itself, held against the daemon's figures.
#include "fixture.h"
#include "timers.h"

#include <random>

class Tool : public CleanSet {
protected:
  int any(int least, int most) { return std::uniform_int_distribution(least, most)(random_); }
  std::string any_time(int least_year, int most_year) {
    char text[32];
    std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d", any(least_year, most_year),
                  any(1, 12), any(1, 28), any(0, 23), any(0, 59), any(0, 1) * any(0, 59));
    return text;
  }
  std::string near(const std::string &when, int hours) { // by up to so many hours, to the second
    return iso(time_of(when) + static_cast<time_value>(any(-3600 * hours, 3600 * hours)));
  }
  static std::string iso(time_value time) {
    std::tm tm{};
    unsigned_gmtime_r(time, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%F %T", &tm);
    return text;
  }

private:
  std::mt19937 random_{2026};
};

static civil_time civil(time_value time) { return civil_time(std::chrono::seconds(time)); }

template <typename Record, typename Made>
static Made made_from(const Record &record, Made (*from)(const std::uint8_t *)) {
  std::array<std::int32_t, kImageWords<Record>> image{};
  for (const record_field &field : kRecordFields<Record>)
    image[field.word] = field_of(record, field);
  return from(reinterpret_cast<const std::uint8_t *>(image.data()));
}

static constexpr const char *kNow = "2026-12-21 06:59:00";
static constexpr int kRounds = 200;
static constexpr int kTimersInARound = 50;

TEST_F(Tool, NextFiring_IsTheDaemons_For10000TimersAndClocks) {
  for (int round = 0; round < kRounds; ++round) {
    restart(std::to_string(round));
    std::vector<holiday> holidays;
    for (int i = any(0, 3); i > 0; --i) {
      const auto *period =
          add_period(any_time(2024, 2024), any_time(2024, 2024), any(0, 1), any(0, 1));
      holidays.push_back(made_from(*period, holiday_from_image));
    }
    const std::string tv = any(0, 9) == 0 ? any_time(2099, 2099) : any_time(2024, 2090);
    const std::string system = near(tv, any(0, 1) * 14);
    set_clocks(tv, system, tv);
    for (int i = 0; i < kTimersInARound; ++i) {
      const std::string when =
          any(0, 9) == 0 ? any_time(2001, 2001) : near(tv, any(0, 1) == 0 ? 30 : 24 * 400);
      const new_timer timer{any(0, 18), when, any(0, 1) * any(1, 255), any(0, 1), any(0, 2)};
      // Only a listed timer is moved past holidays.
      dravel_item *item = timer.week_flag == 0 && timer.effect != 0 ? add(timer) : make(timer);
      if (item->tm.tm_year != kYear2001) // moved timers lie past the end of their month
        item->tm.tm_mday += any(0, 1) * any(0, 20);
      timer_record record = made_from(*item, timer_from_image);
      std::tm expiry{};
      const int result = get_next_expire_date(item, &expiry);
      const auto computed =
          next_firing(record, {civil(time_of(tv)), civil(time_of(system))}, holidays);
      ASSERT_EQ(computed.has_value(), result == 0) << tv << " " << when;
      if (computed) {
        ASSERT_EQ(*computed, civil(unsigned_timegm(&expiry))) << tv << " " << when;
      }
      if (find_dravel_item(item->timer_id) == item)
        remove_dravel_item(item);
      else
        std::free(item);
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
    text += std::to_string(firing.id) + "@" + std::to_string(firing.at.time_since_epoch().count());
    for (const int id : firing.removed)
      text += " -" + std::to_string(id);
    text += "\n";
  }
  return text;
}

// A week of expiries, one after the other as the main loop would let them come.
TEST_F(Tool, Forecast_IsWhatTheDaemonDoes) {
  for (int round = 0; round < 50; ++round) {
    restart(std::to_string(round));
    const auto *period = add_period(near(kNow, 100), near(kNow, 100));
    set_clocks(kNow, kNow, kNow);
    for (int i = 0; i < 12; ++i) {
      const int type = any(0, 16); // off-timers stand apart, so that they disarm no on-timer
      const int minutes = 60 * any(1, 48) + (type == TIMER_TYPE_OFF ? 31 : 1);
      dravel_item *item = add({type, iso(time_of(kNow) + 60 * static_cast<unsigned>(minutes)),
                               any(0, 1) * any(1, 127), any(0, 1), any(0, 2)});
      if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == -1)
        remove_dravel_item(item);
    }
    adjust_dravel_all_items(nullptr, nullptr); // arms them in the order of the list
    time_value now = time_of(kNow);
    const snapshot view = snapshot_of({made_from(*period, holiday_from_image)}, civil(now));
    const civil_time until = view.now.set + std::chrono::days(7);
    std::vector<firing> fired;
    for (const loop_timer *next = first_to_fire(); next != nullptr; next = first_to_fire()) {
      now += static_cast<time_value>(next->seconds);
      if (civil(now) > until)
        break;
      fired.push_back({static_cast<cb_data *>(next->data)->timer_item->timer_id, civil(now)});
      pass(next->seconds);
      set_clocks(iso(now), iso(now), iso(now));
      const snapshot before = snapshot_of({}, {});
      fire(*next);
      for (const timer_record &timer : before.timers)
        if (find_dravel_item(timer.id) == nullptr)
          fired.back().removed.push_back(timer.id);
    }
    ASSERT_EQ(text_of(forecast(view, until)), text_of(fired));
  }
}
