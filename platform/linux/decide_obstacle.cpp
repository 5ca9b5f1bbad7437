// What is in the way of a sleep that we want.
#include "rules.h"

#include <algorithm>

static constexpr std::int64_t kHourMs = 3600 * kSecondMs;
static constexpr std::int64_t kSameVisitMs = 300 * kSecondMs;

// A busy device keeps an alarm of ours that should not stand any longer.
static bool is_kept_by_device(const machine &m) {
  return m.alarm.refused != 0 && m.alarm.stands.owner == alarm_owner::kTimer;
}

// UTC: until then the machine waits for something near; 0: nothing is near. An alarm may go off
// before the machine sleeps, and does not wake it then.
std::int64_t near_until(const machine &m, const moment &now) {
  const std::int64_t nearness = nearness_seconds(m, m.sleep.method);
  if (m.alarm.wanted.on_time == now.utc) // the daemon fires the timer before its second is over
    return now.utc;
  const std::int64_t next = next_wake_utc(m, now);
  const device_alarm &stands = m.alarm.stands;
  const bool may_pass = stands.owner == alarm_owner::kHop || is_kept_by_device(m);
  if (next != kNever && next - now.utc < lead_seconds(m, m.sleep.method) + nearness)
    return next;
  const bool is_near = stands.utc > now.utc && stands.utc - now.utc < nearness;
  return may_pass && is_near ? stands.utc : 0;
}

// boot; 0: at any time. Woken again and again, the machine is not sent to sleep again and again.
std::int64_t often_until(const machine &m) {
  const std::int64_t oldest = m.power.sent_at.back();
  return std::max(m.power.pause_until, oldest == 0 ? 0 : oldest + kHourMs);
}

// A user does not stop an off-timer, only who has asked for it.
static std::uint8_t blocking_bits(const machine &m) {
  if (m.sleep.wish == sleep_wish::kReturn || m.sleep.wish == sleep_wish::kTest)
    return kSleepBit | kShutdownBit | kIdleBit;
  return m.sleep.method == off_action::kPoweroff ? kShutdownBit : kSleepBit;
}

// Who comes soon after the off-time may be the one who has asked for it.
bool is_overtaken(const machine &m) {
  const sleep_wish wish = m.sleep.wish;
  const std::int64_t came_at = std::max({m.use.input_at, m.use.session_at, m.use.active_at});
  return (wish == sleep_wish::kOffTimer || wish == sleep_wish::kScreen) &&
         came_at > m.sleep.wished_at + kSameVisitMs;
}

static bool test_is_set(const machine &m, const moment &now) {
  const device_alarm &stands = m.alarm.stands;
  return stands.owner == alarm_owner::kTest && stands.utc > now.utc && !m.alarm.unread;
}

postponed obstacle(const machine &m, const moment &now) {
  const sleep_wish wish = m.sleep.wish;
  const bool is_pending = m.screen.pending && has_television(m);
  if (wish == sleep_wish::kOffTimer && (is_pending || off_job_runs(m)))
    return postponed::kHook;
  if (wakeup_job_runs(m))
    return postponed::kJob;
  if ((m.use.blocked & blocking_bits(m)) != 0)
    return postponed::kBlocked;
  if (wish == sleep_wish::kTest && is_test_disturbed(m, now))
    return postponed::kOnTimeNear;
  if (wish == sleep_wish::kTest)
    return test_is_set(m, now) ? postponed::kNot : postponed::kNoAlarm;
  if (wish == sleep_wish::kReturn && is_session_in_use(m))
    return postponed::kSession;
  if (m.sleep.is_silent && must_say_off(m))
    return postponed::kScreenSilent;
  if (often_until(m) > now.boot)
    return postponed::kOften;
  if (near_until(m, now) != 0)
    return postponed::kOnTimeNear;
  return alarm_leads(m, now, m.sleep.method) ? postponed::kNot : postponed::kNoAlarm;
}
