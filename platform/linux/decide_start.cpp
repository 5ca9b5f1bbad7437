// The start of this process: after a boot, or after another run of the same boot.
#include "rules.h"

#include <algorithm>

// A first start later than this follows a version that left no record and has fired its timers.
static constexpr std::int64_t kLongestBootSeconds = 1800;
// A build says when it ends, unless it crashes: an older time is not that of its end.
static constexpr std::int64_t kUpgradeSeconds = 60;

static void boot_was(decision &d, const event::started &e) {
  auto &woken = d.m.woken;
  auto &alarm = d.m.alarm;
  const phase left = e.kept.power.now;
  alarm.before_sleep_wanted = alarm.wanted;
  alarm.before_sleep = alarm.stands;
  alarm.minutes = e.device.minutes;
  woken.booted = true;
  woken.at = woken.counted_at = d.now.boot;
  woken.utc = e.booted_at;
  const std::int64_t since_boot = d.now.boot / kSecondMs;
  // Firmware and drivers switch an alarm off at a boot: nobody has given up the other one.
  const others_did others = what_others_did(d.m, e.device);
  const bool replaced = others == others_did::kReplaced;
  if (others == others_did::kSwitchedOff)
    alarm.stands = {};
  woken.by = cause_by_alarm(d.m, replaced ? others_did::kReplaced : others_did::kNothing,
                            e.device.clock - since_boot);
  // Who has booted it says nothing any longer when it has slept since.
  if (woken.by == cause::kNothing || d.now.sleeps != 0 || d.now.slept >= kSecondMs)
    woken.by = cause::kUser;
  if (woken.by == cause::kTimer)
    credit(d);
  say_cause(d);
  const bool went_in_order = left == phase::kShuttingDown;
  const bool is_late = since_boot >= kLongestBootSeconds;
  if (is_late) // before, the other version has fired them
    d.m.clock.unknown_from = d.now.boot;
  woken.late_from = went_in_order ? e.kept.power.went.utc : is_late ? d.now.utc : e.booted_at;
}

// The last run was of another build, and its record cannot be read: what woke the machine, and what
// decides whether it may sleep again, is kept by name.
static void build_was_changed(decision &d, const event::started &e) {
  auto &woken = d.m.woken;
  woken.by = e.kept.woken.by;
  woken.booted = e.kept.woken.booted;
  woken.at = std::min(e.kept.woken.at, d.now.boot);
  woken.counted_at = d.now.boot;
  woken.utc = e.kept.woken.utc;
  const std::int64_t ended = e.kept.power.went.utc;
  const bool is_known = ended < d.now.utc && d.now.utc - ended <= kUpgradeSeconds;
  woken.late_from = is_known ? ended : d.now.utc;
  woken.stays = e.kept.woken.stays;
  d.m.screen.ordered = e.kept.screen.ordered;
  d.m.screen.ordered_on = e.kept.screen.ordered_on;
  d.m.clock.was_set = e.kept.clock.was_set;
  d.m.sleep.last_method = e.kept.sleep.last_method;
  if (e.kept.sleep.wish == sleep_wish::kOffTimer)
    wish_sleep(d, sleep_wish::kOffTimer, e.kept.sleep.method);
}

// Every timer that fires is an event. Where the last one is that of a moment ago, one of the same
// second may not have had its turn.
static void last_run_fired(decision &d) {
  auto &woken = d.m.woken;
  if (!d.m.armed || woken.late_open)
    return;
  const std::int64_t until = utc_before(d.now, d.now.boot - d.m.power.seen.boot);
  const bool has_fired = woken.late_from == until || d.now.utc - until > kSlackSeconds;
  woken.late_from = has_fired ? until : until - 1;
}

// The daemon of this run knows nothing of what the last one was told.
static void take_over(decision &d, const event::started &e) {
  if (e.has_kept && e.same_boot) {
    d.m = e.kept;
    d.m.told = {};
    d.m.power.ending = false;
    d.m.use.watched = false;
    last_run_fired(d);
    d.m.armed = false;
    doubt_jobs(d);
    ask_again(d);
    notice_sleep(d);
    return;
  }
  d.m = {};
  d.m.alarm = e.has_kept ? e.kept.alarm : machine{}.alarm;
  d.m.power.seen = {0, d.now.boot, d.now.slept, d.now.sleeps, 0};
  if (e.has_kept && e.is_other_build)
    build_was_changed(d, e);
  else
    boot_was(d, e);
}

static void find_out(decision &d) {
  take_inhibitor(d);
  d.give(order::ask_use{});
  d.give(order::ask_clock{});
  d.give(order::ask_preparing{});
}

void on(decision &d, const event::started &e) {
  take_over(d, e);
  d.m.started = true;
  d.m.set = e.set;
  d.m.clock.rtc_valid = d.m.clock.rtc_valid || e.rtc_valid; // which nothing undoes in a boot
  d.m.clock.build_day = e.build_day;
  d.m.clock.next_transition = e.next_transition;
  d.m.alarm.stale = d.m.alarm.wanted.on_time != 0;
  d.m.wants_idle = true;
  start_clock(d);
  find_out(d);
  on(d, event::alarm_read{e.device});
}

static void take_new_device(decision &d) {
  auto &alarm = d.m.alarm;
  alarm.leaves = false;
  alarm.stands = alarm.foreign = alarm.before_sleep = {};
}

void on(decision &d, const event::configured &e) {
  d.m.set = e.set;
  if (d.m.alarm.leaves)
    take_new_device(d);
  check_off_action(d);
  change_off_action(d);
  d.m.alarm.range = 0;
  d.m.alarm.check = true;
}

void on(decision &d, const event::armed &) {
  auto &woken = d.m.woken;
  d.m.armed = true;
  d.m.wants_idle = true;
  woken.late_open = true;
  woken.late_from = std::max(woken.late_from, d.now.utc - kLatestSeconds);
}
