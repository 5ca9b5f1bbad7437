// The platform's own lines in the journal.
#pragma once

// An error: what failed, and what does not work because of it.
void report(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What the platform does, at information priority.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
