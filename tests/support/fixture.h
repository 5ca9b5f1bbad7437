// A clean set for every case: its clocks stand still at noon of Tuesday, 15 December 2026, its
// store is new, the daemon has started, nothing is listed, armed or programmed.
#pragma once

#include "bus.h"
#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-timer.h"
#include "loop.h"
#include "standin.h"
#include "store.h"
#include "times.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <span>
#include <string>

void set_clocks(const std::string &tv, const std::string &system, const std::string &rtc);
void set_now(const std::string &when);

dravel_item *make(const new_timer &timer); // the caller's
dravel_item *add(const new_timer &timer);  // listed and stored
dravel_item *arm(const new_timer &timer);  // and armed
disabled_period_item *add_period(const std::string &start, const std::string &end,
                                 int start_leap = 0, int end_leap = 0);

std::string next(const dravel_item *item); // the next expiry, or the failure's number
std::string ids(Eina_List *timers);        // "3 1 2"
std::string armed(int timer_id); // when the item's timer fires on the TV clock, "" for unarmed

// A call of one of the daemon's methods: the reply's first integer, then its image's words.
words call(const char *method, std::span<const int> arguments);
template <typename... Ints> words call(const char *method, int first, Ints... others) {
  return call(method, std::array{first, others...});
}

// What was asked of the set since the last call, as "state 0 1; clear_wakeup_time 0 0"; events are
// that and the daemon's signals, in their order. Either call forgets both.
std::string requests();
std::string events();
std::string subscriptions(); // to the set's events that are in force, in a fixed order

// clear_set: as before a start. begin_clean_set: the start, without the daemon's idle step.
// end_clean_set: removes all items by the daemon's operations; fails when something is left.
void clear_set();
void begin_clean_set();
void end_clean_set();
void close_and_empty_store();
// The power is cut, and the daemon starts on what is stored, with the TV clock at `tv`.
void start_again(const std::string &tv);

class CleanSet : public testing::Test {
protected:
  // Lists may outlive the main loop, so their library is not shut down with it.
  static void SetUpTestSuite() {
    eina_init();
    ecore_init();
  }
  static void TearDownTestSuite() { ecore_shutdown(); }
  void SetUp() override { begin_clean_set(); }
  void TearDown() override { end_clean_set(); }
  void restart(const std::string &row); // a clean set for the next row of a table

private:
  std::optional<testing::ScopedTrace> trace_;
};
