#include "standin_private.h"

#include <CTimeUtil.h>
#include <Ecore.h>
#include <daemon_callbacks.h>
#include <glib.h>
#include <time_values.h>

#include <memory>

namespace {

struct unref_zone {
  void operator()(GTimeZone *zone) const { g_time_zone_unref(zone); }
};
using zone_ptr = std::unique_ptr<GTimeZone, unref_zone>;

struct set_clock {
  bool follows_zone; // until it is set by hand
  bool known = true;
  std::int64_t ahead = 0;      // of its source, while the clocks run
  std::uint32_t stands_at = 0; // while they do not
};

} // namespace

static zone_ptr zone; // null: the system's
static bool running = true;
static set_clock tv_clock{.follows_zone = true};
static set_clock rtc{.follows_zone = false};
static bool follows_transitions = false;
static Ecore_Timer *transition_timer;
static std::int64_t transition;

static GTimeZone *current_zone() {
  if (!zone)
    zone.reset(g_time_zone_new_local());
  return zone.get();
}

static std::int64_t source_of(const set_clock &clock) {
  const std::int64_t now = std::time(nullptr);
  return clock.follows_zone ? now + zone_offset(current_zone(), now) : now;
}

static std::uint32_t reading(const set_clock &clock) {
  standin(); // the key file may set the clocks
  if (!clock.known)
    return 0;
  return running ? to_time_value(source_of(clock) + clock.ahead) : clock.stands_at;
}

static void set_by_hand(set_clock &clock, std::uint32_t value) {
  standin();
  clock.known = value != 0;
  clock.follows_zone = false;
  clock.ahead = value - source_of(clock);
  clock.stands_at = value;
}

// --- daylight saving time ---

static void end_transition_timer() {
  if (transition_timer == nullptr)
    return;
  ecore_timer_freeze(transition_timer);
  ecore_timer_del(transition_timer);
  transition_timer = nullptr;
}

static Eina_Bool transition_reached(void *) {
  transition_timer = nullptr;
  const bool is_reached = std::time(nullptr) >= transition; // the two clocks may drift apart
  standin_follow_transitions();
  if (is_reached && running && tv_clock.known && tv_clock.follows_zone)
    standin_announce_time_set();
  return ECORE_CALLBACK_CANCEL;
}

void standin_follow_transitions() {
  follows_transitions = true;
  end_transition_timer();
  const std::int64_t now = std::time(nullptr);
  const auto next = next_transition(
      now, [zone = current_zone()](std::int64_t utc) { return zone_offset(zone, utc); });
  if (!next)
    return;
  transition = *next;
  transition_timer =
      ecore_timer_add(static_cast<double>(transition - now), transition_reached, nullptr);
}

// --- the clocks ---

void standin_reset_clocks() {
  end_transition_timer();
  follows_transitions = false;
  zone.reset();
  running = true;
  tv_clock = {.follows_zone = true};
  rtc = {.follows_zone = false};
}

void standin_set_tv_clock(std::uint32_t value) { set_by_hand(tv_clock, value); }

void standin_set_rtc(std::uint32_t value) { set_by_hand(rtc, value); }

std::uint32_t standin_tv_clock() { return reading(tv_clock); }

std::uint32_t standin_rtc() { return reading(rtc); }

bool standin_clocks_running() {
  standin();
  return running;
}

void standin_run_clocks(bool run) {
  standin();
  if (run == running)
    return;
  for (set_clock *clock : {&tv_clock, &rtc}) {
    if (run)
      clock->ahead = clock->stands_at - source_of(*clock);
    else
      clock->stands_at = reading(*clock);
  }
  running = run;
}

std::string standin_time_zone() {
  standin();
  return g_time_zone_get_identifier(current_zone());
}

bool standin_set_time_zone(const char *name) {
  standin();
  zone_ptr found{g_time_zone_new_identifier(name)};
  if (!found)
    return false;
  zone = std::move(found);
  if (follows_transitions)
    standin_follow_transitions();
  deliver_setting(kSettingsTimeZone);
  return true;
}

std::uint32_t CTimeUtil::GetCurrentTime() {
  return standin_refuses(__func__) ? 0 : standin_tv_clock();
}

int CTimeUtil::GetClockMode() { return standin_refuses(__func__) ? -1 : standin().clock_mode; }

std::uint32_t CTimeUtil::ConvertToLocalTime(std::uint32_t utc) {
  standin();
  return utc_to_local(current_zone(), utc);
}

std::tm CTimeUtil::ConvertToUTCTime(std::tm local) {
  standin();
  return broken_down(local_to_utc(current_zone(), civil_seconds(local)));
}

std::uint32_t CTimeUtil::Unsigned_timegm(const std::tm *time) {
  return standin_refuses(__func__) ? kLastTimeValue : time_value_of(*time);
}

std::tm *CTimeUtil::Unsigned_gmtime_r(std::uint32_t time, std::tm *out) {
  *out = broken_down(time);
  return out;
}
