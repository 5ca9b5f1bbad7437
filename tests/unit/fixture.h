// A clean set for every case: its clocks stand still at noon of Tuesday, 15 December 2026, its
// store is new, nothing is listed, armed or programmed. Main-loop timers fire only where a case
// says so; one that is deleted after it has ended fails the case.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <Ecore.h>
#include <gtest/gtest.h>

#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-timer.h"
#include "rows.h"
#include "standin.h"

// Times are written as "15 12:00", a day of December 2026, or in full as "2027-01-31 12:00"; either
// may have seconds. "" is a clock that cannot be read.
constexpr const char *kNoon = "15 12:00";
std::tm broken_down(const char *when);
time_value at(const char *when);
std::string text(const std::tm &time);
std::string text(time_value time);
void set_clocks(const char *tv, const char *system, const char *rtc);
void set_now(const char *when);

enum weekdays { Sun = 1, Mon = 2, Tue = 4, Wed = 8, Thu = 16, Fri = 32, Sat = 64, Daily = 127 };

struct new_timer {
  int type;
  const char *when;
  int week_flag = 0;
  int effect = 0; // whether disabled periods count
  int time_type = TIME_TYPE_BROADCAST;
  int priority = 0;
};
dravel_item *make(const new_timer &timer); // the caller's
dravel_item *add(const new_timer &timer);  // listed and stored
dravel_item *arm(const new_timer &timer);  // and armed
disabled_period_item *add_period(const char *start, const char *end, int start_leap = 0,
                                 int end_leap = 0);

std::string next(const dravel_item *item); // the next expiry, or the failure's number
std::string ids(Eina_List *timers);        // "3 1 2"
std::string armed(int timer_id);     // when the item's timer fires on the TV clock, "" for unarmed
int pending(Ecore_Task_Cb callback); // main-loop timers that would call `callback`
bool run(Ecore_Task_Cb callback);    // lets the first of them fire; true when it goes on

// What was asked of the set since the last call, as "state 0 1; clear_wakeup_time 0 0".
std::string asked();

class CleanSet : public testing::Test {
protected:
  // Lists may outlive the main loop, so their library is not shut down with it.
  static void SetUpTestSuite() {
    eina_init();
    ecore_init();
  }
  static void TearDownTestSuite() { ecore_shutdown(); }
  void SetUp() override;
  void TearDown() override;
  void restart(const std::string &row); // a clean set for the next row of a table

private:
  std::optional<testing::ScopedTrace> trace;
};
