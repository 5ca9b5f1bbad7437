// What stands on the device, and who has put it there.
#include "rules.h"

static device_alarm valued(const decision &d, device_alarm alarm, std::int64_t clock) {
  alarm.utc = d.now.utc + rounded_down(d.m, alarm.count) - clock;
  return alarm;
}

// The register holds what it is found to hold. It is ours only when we wrote this very count; our
// last write counts, too, when its result has been lost with the process.
static alarm_owner owner_of(const machine &m, std::int64_t count) {
  for (const device_alarm *known : {&m.alarm.stands, &m.alarm.foreign})
    if (known->owner != alarm_owner::kNone && known->count == count)
      return known->owner;
  return m.alarm.changes && m.alarm.next.count == count ? m.alarm.next.owner
                                                        : alarm_owner::kForeign;
}

others_did what_others_did(const machine &m, const device_reading &reading) {
  const device_alarm &stands = m.alarm.stands;
  if (stands.owner == alarm_owner::kNone || m.alarm.changes || m.alarm.doubt)
    return others_did::kNothing;
  if (reading.alarm <= reading.clock) // one in the past counts as none
    return is_ahead(m, stands, reading.clock) ? others_did::kSwitchedOff : others_did::kNothing;
  return reading.alarm == stands.count ? others_did::kNothing : others_did::kReplaced;
}

void take_reading(decision &d, const device_reading &reading) {
  auto &alarm = d.m.alarm;
  const std::int64_t clock = reading.clock;
  // Whoever has switched it off did not want the one before, either.
  if (what_others_did(d.m, reading) == others_did::kSwitchedOff)
    alarm.foreign = {};
  alarm.minutes = reading.minutes;
  const bool found = rounded_down(d.m, reading.alarm) > clock;
  const alarm_owner owner = found ? owner_of(d.m, reading.alarm) : alarm_owner::kNone;
  alarm.stands = found ? valued(d, {owner, reading.alarm, 0}, clock) : device_alarm{};
  if (owner == alarm_owner::kForeign)
    alarm.foreign = alarm.stands;
  alarm.foreign =
      is_ahead(d.m, alarm.foreign, clock) ? valued(d, alarm.foreign, clock) : device_alarm{};
  alarm.clock = clock;
  alarm.changes = false;
  alarm.doubt = alarm.unread = false;
}
