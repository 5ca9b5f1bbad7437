// history: what the journal has of the timers and of the machine.
#include "commands.h"

#include <filesystem>
#include <unistd.h>

static constexpr const char *kJournals[] = {"/var/log/journal", "/run/log/journal"};

// The journal of the system, not of a user, has the daemon's entries.
std::string reason_not_to_read_history() {
  std::string reason = "this machine keeps no journal";
  for (const char *journal : kJournals) {
    std::error_code absent;
    for (const auto &machine : std::filesystem::directory_iterator(journal, absent)) {
      const std::filesystem::path file = machine.path() / "system.journal";
      if (access(file.c_str(), R_OK) == 0)
        return "";
      if (access(file.c_str(), F_OK) == 0)
        reason = "members of the group systemd-journal may; after joining it, log in again";
    }
  }
  return reason;
}
