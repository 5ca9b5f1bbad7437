// The bus killed amid a stream of changes: the daemon ends in order, and the next one, on the next
// bus, has every acknowledged change.

#include "soak.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <unistd.h>

static constexpr const char *kAddress = "unix:path=/run/bench/short-lived";
static constexpr const char *kConfiguration = "/run/bench/short-lived.conf";
static constexpr unsigned kLongestStreamUs = 50000;

// Returns once the bus takes connections: it then tells its address.
static pid_t start_bus() {
  int ends[2];
  if (pipe(ends) != 0)
    fail("no pipe");
  const pid_t pid = start({"/usr/bin/dbus-daemon", "--nofork", "--nosyslog",
                           std::string("--config-file=") + kConfiguration,
                           "--print-address=" + std::to_string(ends[1])});
  close(ends[1]);
  char told = 0;
  if (read(ends[0], &told, 1) != 1)
    fail("no bus");
  close(ends[0]);
  return pid;
}

std::string run_lost_bus(soak_run &run) {
  std::ofstream(kConfiguration)
      << "<busconfig><type>session</type><listen>" << kAddress << "</listen><auth>EXTERNAL</auth>"
      << "<policy context='default'><allow send_destination='*' eavesdrop='true'/>"
      << "<allow eavesdrop='true'/><allow own='*'/></policy></busconfig>";
  const std::string house_bus = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  ledger book(run);
  for (int round = 0; round < run.rounds; ++round) {
    const pid_t bus_daemon = start_bus();
    bus_client bus(kAddress);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", kAddress, 1);
    auto daemon = start_daemon(run, bus);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", house_bus.c_str(), 1);
    book.compare(listed_timers(bus));
    const std::jthread killer([bus_daemon, wait = run.below(kLongestStreamUs)] {
      usleep(wait);
      kill(bus_daemon, SIGKILL);
    });
    while (book.change(bus))
      continue;
    if (const int status = daemon->wait(); status != 0)
      fail(text("without its bus the daemon ended with status %d", status));
    end(bus_daemon);
    check_sound(daemon_store);
  }
  bus_client bus;
  const auto daemon = start_daemon(run, bus);
  book.compare(listed_timers(bus));
  return text("%d buses lost, %d changes acknowledged, none lost, each end in order", run.rounds,
              book.acknowledged());
}
