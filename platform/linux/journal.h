// The platform's own lines in the journal.
#pragma once

// The MESSAGE_ID of all events; DRAVEL_EVENT, DRAVEL_TIMER and DRAVEL_REASON say which.
inline constexpr const char *kEventId = "b9e79bcbc9524559903a405a6561a87d";

// An error: what failed, and what does not work because of it.
void report(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What the platform does, at information priority.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
