// The platform's own lines in the journal.
#pragma once

// An error: what is missing or refuses, and what does not work without it.
void report(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What the platform does, at information priority.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
