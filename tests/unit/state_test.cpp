#include "fixture.h"

#include <functional>
#include <utility>

#include <gmock/gmock.h>

#include "dravel-state.h"

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
}

TEST_F(State, ATimerThatGoes_HasItsReason) {
  const new_timer tomorrow{1, "16 07:00"};
  const new_timer workless{1, "15 11:00", kDaily, 1};
  const new_timer system_time{1, "15 11:00", 0, 0, TIME_TYPE_INTERNET};
  const std::pair<std::string, std::function<void()>> cases[] = {
      {"fired", [=] { arm(tomorrow), fire_at("16 07:00"); }},
      {"cancelled", [=] { cancel_dravel_item(arm(tomorrow)); }},
      {"replaced", [=] { cancel_dravel_item(arm(tomorrow), removal_reason::kReplaced); }},
      {"evicted", [=] { fill_list(), add(tomorrow); }},
      {"past", [=] { arm(tomorrow), adjust("16 07:00"); }},
      {"past",
       [=] {
         add({0, "16 07:00:30"}), reschedule("16 07:00:10", kNoon);
       }},
      {"past", [=] { add(system_time), reschedule("15 10:00", "15 12:00"); }},
      {"never",
       [=] {
         add({1, "2027-12-15 12:00:01"}), reschedule(kNoon, kNoon);
       }},
      {"never", [=] { arm(workless), add_period("2026-01-01 00:00", "31 00:00"), adjust(kNoon); }},
      {"lost", [=] { add(tomorrow), close_dravel_db(), cancel_dravel_item(find_dravel_item(1)); }},
  };
  for (const auto &[reason, happen] : cases) {
    restart(reason);
    happen();
    EXPECT_THAT(changes(), testing::HasSubstr("Removed 1 " + reason));
  }
}

// A move counts once in a pass, and not for a timer that came in it.
TEST_F(State, AllThatHappensInAPass_IsToldInOrder) {
  const new_timer once{1, "18 14:00", 0, 1};
  const std::pair<std::string, std::function<void()>> cases[] = {
      {"Added 1, Removed 1 cancelled, Added 2", [=] { cancel_dravel_item(add(once)), add(once); }},
      {"Changed 1", [=] { arm(once), changes(), adjust(kNoon); }},
      {"",
       [=] {
         arm({1, "15 14:00"}), changes(), adjust(kNoon);
       }},
      {"Changed 1",
       [=] { arm(once), changes(), add_period("15 00:00", "17 00:00"), adjust(kNoon); }},
      {"Added 1", [=] { add_period("18 00:00", "20 00:00"), arm(once); }},
      {"Removed 1 fired, Changed 2, Removed 2 past",
       [=] {
         arm({1, "16 07:00"}), arm({1, "17 07:00"}), changes(), fire_at("16 07:00");
       }},
  };
  for (const auto &[expected, happen] : cases) {
    restart(expected);
    happen();
    EXPECT_EQ(changes(), expected);
  }
}
