#include "dravel-state.h"
#include "fixture.h"

#include <functional>

class State : public CleanSet {};

// What would be sent now, as "Added 1, Removed 1 fired".
static std::string changes() {
  std::string out;
  for (const timer_change &change : take_timer_changes())
    out += (out.empty() ? "" : ", ") + std::string(change.signal).substr(5) + " " +
           std::to_string(change.timer_id) +
           (change.reason != nullptr ? " " + std::string(change.reason) : "");
  return out;
}

static void adjust(const char *now) {
  set_now(now);
  adjust_dravel_all_items(nullptr, nullptr);
}

static void reschedule(const char *tv, const char *system) {
  set_clocks(tv, system, tv);
  reschedule_all_timers();
}

static void fire_at(const char *now) {
  set_now(now);
  fire(ecore_timer_cb);
}

static void fill_list() {
  for (int i = 0; i < 80; ++i)
    add({0, "16 07:00"});
  changes();
}

// The timers of a row are listed in a pass before. A move counts once in a pass.
TEST_F(State, WhatHappensToTimersInAPass_IsToldInOrder_WithTheReasonsOfThoseThatGo) {
  const new_timer today{1, "15 14:00", 0, 1};
  const new_timer tomorrow{1, "16 07:00"};
  const new_timer in_days{1, "18 14:00", 0, 1};
  const new_timer with_seconds{0, "16 07:00:30"};
  const new_timer system_time{1, "15 11:00", 0, 0, TIME_TYPE_INTERNET};
  const new_timer on_workdays{1, "15 11:00", kDaily, 1};
  const new_timer in_a_year{1, "2027-12-15 12:00:01"};
  const std::tuple<std::vector<new_timer>, std::function<void()>, std::string> cases[] = {
      {{tomorrow}, [] { fire_at("16 07:00"); }, "Removed 1 fired"},
      {{tomorrow}, [] { cancel_dravel_item(find_dravel_item(1)); }, "Removed 1 cancelled"},
      {{}, [=] { fill_list(), add(tomorrow); }, "Removed 1 evicted, Added 81"},
      {{tomorrow}, [] { adjust("16 07:00"); }, "Removed 1 past"},
      {{with_seconds}, [] { reschedule("16 07:00:10", kNoon); }, "Removed 1 past"},
      {{system_time}, [] { reschedule("15 10:00", "15 12:00"); }, "Removed 1 past"},
      {{in_a_year}, [] { reschedule(kNoon, kNoon); }, "Removed 1 never"},
      {{on_workdays},
       [] { add_period("2026-01-01 00:00", "31 00:00"), adjust(kNoon); },
       "Removed 1 never"},
      {{tomorrow},
       [] { close_dravel_db(), cancel_dravel_item(find_dravel_item(1)); },
       "Removed 1 lost"},
      {{today, tomorrow},
       [=] { cancel_dravel_item(find_dravel_item(2)), add(tomorrow); },
       "Removed 2 cancelled, Added 3"},
      {{in_days}, [] { adjust(kNoon); }, "Changed 1"},
      {{today}, [] { adjust(kNoon); }, ""},
      {{today}, [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); }, "Changed 1"},
      {{in_days}, [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); }, "Changed 1"},
      {{}, [=] { add_period("18 00:00", "20 00:00"), add(in_days); }, "Added 1"},
      {{tomorrow, tomorrow}, [] { fire_at("16 07:00"); }, "Removed 1 fired, Removed 2 past"},
  };
  for (const auto &[listed, happen, expected] : cases) {
    restart(expected);
    for (const new_timer &timer : listed)
      schedule_dravel_item(add(timer), dravel_expire_cb, nullptr);
    changes();
    happen();
    EXPECT_EQ(changes(), expected);
  }
  restart("a transient timer does not come back");
  dravel_item *item = add({10, "16 07:00"});
  const std::string id = std::to_string(item->timer_id);
  changes();
  close_dravel_db();
  cancel_dravel_item(item);
  EXPECT_EQ(changes(), "Removed " + id + " cancelled");
}
