// What will become of a timer and why. Whoever speaks of that (explain, week, add, change, import)
// takes it from here, so that all say the same.
#pragma once

#include "forecast.h"

#include <climits>
#include <string>
#include <vector>

// Why the daemon would refuse `timer`; empty when nothing speaks against it.
std::string refusal_of(timer_record timer, const snapshot &view);

// What moves or removes an armed timer before it fires, a sentence; empty for nothing.
std::string fate_of(const timer_record &timer, const outlook &ahead);

// Why a listed timer is not armed.
std::string reason_unarmed(const timer_record &timer, const snapshot &view);

// The timers of one second; for one timer the second is told once for each company.
struct clash {
  civil_time at;
  std::vector<int> ids; // sorted

  std::string text(const snapshot &view, int it = 0) const; // calls the timer with that id "it"
};

// The clashes of one timer, or of all for id 0; each company of timers once, with its first second.
std::vector<clash> clashes_of(int id, const std::vector<firing> &firings);

inline constexpr int kUnlisted = INT_MAX; // the id of a timer that is only checked

// What the user should know of the timer `id` of `after`, which was asked for as `wanted` when the
// set was as in `before`; also of the timers there that it has disarmed.
std::vector<std::string> notes_of_added(int id, timer_record wanted, const snapshot &before,
                                        const snapshot &after);

// The timer that the daemon removes to make room for one more; null while there is room.
const timer_record *evicted_by(const timer_record &timer, const snapshot &view);
// Adds the sentence that says so, done or only checked.
void note_eviction(std::vector<std::string> &notes, const timer_record &timer, const snapshot &view,
                   bool is_check = false);
