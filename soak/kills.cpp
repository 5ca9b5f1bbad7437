// SIGKILL amid a stream of changes: every acknowledged one is there after the restart.

#include "soak.h"

#include <csignal>
#include <thread>

#include <unistd.h>

static constexpr unsigned kLongestStreamUs = 30000;

std::string run_kills(soak_run &run) {
  bus_client bus;
  ledger book(run);
  for (int round = 0; round < run.rounds; ++round) {
    auto daemon = start_daemon(run, bus);
    book.compare(listed_timers(bus));
    check_sound(daemon_store);
    const std::jthread killer([pid = daemon->pid(), wait = run.below(kLongestStreamUs)] {
      usleep(wait);
      kill(pid, SIGKILL);
    });
    while (book.change(bus))
      continue;
    if (daemon->wait() != -SIGKILL)
      fail("the daemon ended before it was killed");
  }
  const auto daemon = start_daemon(run, bus);
  book.compare(listed_timers(bus));
  check_sound(daemon_store);
  return text("%d kills, %d changes acknowledged, none lost", run.rounds, book.acknowledged());
}
