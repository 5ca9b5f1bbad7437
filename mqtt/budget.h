// The time budget when the machine goes to sleep.
#pragma once

inline constexpr int kPatienceSeconds = 2; // of who announces the sleep
inline constexpr int kDrainMs = 1500;      // for what is sent before a pause
inline constexpr int kDisconnectMs = 400;
inline constexpr int kDaemonSeconds = 3; // for an answer of the daemon; more than the budget has

static_assert(kDrainMs + kDisconnectMs < kPatienceSeconds * 1000);
