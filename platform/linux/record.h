// What outlives the process. The state directory, STATE_DIRECTORY or /var/lib/dravel-manager, keeps
// the alarm for the next boot,
// and what woke the machine for another build; the runtime directory, RUNTIME_DIRECTORY or
// /run/dravel-manager, the whole record for the next run: a boot empties it.
#pragma once

#include "machine.h"

// False, and one line, when another daemon of this machine holds the state directory, or this user
// has no access to it. The lock ends with the process.
bool lock_state();

struct kept_record {
  machine record;
  bool exists = false;
  bool same_boot = false;      // false: only the alarm, and when it slept and woke
  bool is_other_build = false; // whose record, of this boot, cannot be read
};

// `device_alarm`: the count of the alarm that the device has.
kept_record load_record(std::int64_t device_alarm);

// Writes what has changed since the last call. Returns an errno, 0 when all is written.
int store_record(const machine &record);
