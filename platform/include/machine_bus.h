// Where a platform that is a machine shows itself to clients: its object on the bus, whose name is
// the daemon's, and its events in the journal.
#pragma once

inline constexpr const char *kMachinePath = "/org/olvara/tv/system/dravel/machine";
inline constexpr const char *kMachineInterface = "org.olvara.tv.system.dravel.machine";

// The field that all events have; DRAVEL_EVENT, DRAVEL_TIMER and DRAVEL_REASON say which one it is.
inline constexpr const char *kMachineEvents = "MESSAGE_ID=b9e79bcbc9524559903a405a6561a87d";
