// A sleep to try out: the machine sleeps now and wakes after so many seconds.
#include "rules.h"

#include <cerrno>

static constexpr std::int64_t kMostSeconds = 3600;
static constexpr std::int64_t kClearSeconds = 120; // nothing else may come so soon after its end

static bool is_sleep_wanted(const machine &m) {
  return m.sleep.wish != sleep_wish::kNone && m.sleep.wish != sleep_wish::kReturn;
}

static bool comes_before_end(const machine &m, const moment &now, std::int64_t seconds) {
  return next_wake_utc(m, now) < now.utc + seconds + kClearSeconds;
}

bool is_test_disturbed(const machine &m, const moment &now) {
  return comes_before_end(m, now, (m.test.until - now.boot) / kSecondMs);
}

static int refusal(const machine &m, const moment &now, std::int64_t seconds) {
  if (m.test.running || m.power.now != phase::kAwake || is_sleep_wanted(m))
    return EALREADY;
  if (seconds > kMostSeconds || seconds < nearness_seconds(m, off_action::kSuspend))
    return ERANGE;
  if (comes_before_end(m, now, seconds) || m.use.blocked != 0 || wakeup_job_runs(m))
    return EBUSY;
  return 0;
}

void on(decision &d, const event::test_wake &e) {
  if (const int error = refusal(d.m, d.now, e.seconds); error != 0) {
    d.give(order::answer{e.call, 0, cause::kNothing, error});
    return;
  }
  d.m.test = {true, e.call, d.now.boot + e.seconds * kSecondMs};
  d.m.alarm.check = true;
  say(d, order::saying::kTestBegins, e.seconds);
  wish_sleep(d, sleep_wish::kTest, off_action::kSuspend);
}

// What stood before it is written again.
void trial_ends(decision &d, int error) {
  const std::int64_t slept = error == 0 ? (d.now.boot - d.m.power.went.boot) / kSecondMs : 0;
  d.give(order::answer{d.m.test.call, slept, d.m.woken.by, error});
  d.m.test = {};
  d.m.alarm.check = true;
  if (d.m.sleep.wish == sleep_wish::kTest)
    forget_wish(d);
}
