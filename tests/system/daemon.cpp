#include "daemon.h"

#include <glib.h>

#include <cstdlib>
#include <fstream>
#include <sys/wait.h>

daemon_test::~daemon_test() {
  if (daemon_) {
    EXPECT_EQ(stop(), 0) << daemon_log();
  }
}

void daemon_test::launch(const char *bus_address, const std::string &set) {
  const char *other = std::getenv("DRAVEL_MANAGER"); // one for another processor, in a script
  const std::string noon = std::to_string(time_of(kNoon));
  std::ofstream(kKeyFile) << "[set]\nTimeZone=UTC\nClocksRunning=false\nRtc=" + noon +
                                 "\nTvClock=" + noon + "\n" + set + "\n";
  daemon_.emplace(
      std::vector<std::string>{"/usr/bin/env",
                               std::string("DBUS_SYSTEM_BUS_ADDRESS=").append(bus_address),
                               std::string("DRAVEL_STANDIN=").append(kKeyFile),
                               std::string("DRAVEL_LOG=").append(log_level), "DRAVEL_LOG_STDERR=1",
                               other != nullptr ? other : DRAVEL_MANAGER},
      kDaemonLog);
}

void daemon_test::wait_start(bus_client &by) {
  daemon_->wait_name(by, kDaemon);
  wait_log("end scheduling...");
}

void daemon_test::start(const std::string &set) {
  launch(kSandboxBus, set);
  wait_start(bus);
}

int daemon_test::wait_exit() {
  const int status = daemon_->wait();
  daemon_.reset();
  return status;
}

int daemon_test::stop() {
  kill(daemon_->pid(), SIGTERM);
  return wait_exit();
}

int daemon_test::schedule(const new_timer &timer) {
  return bus.call_int(kDaemon, "schedule_timer", arguments_of(timer));
}

words daemon_test::image(const char *method, int argument) {
  return image_of(bus.call(kDaemon, method, {&argument, 1}));
}

words daemon_test::timer_ids() {
  const words list = bus.list(kDaemon);
  words ids;
  for (std::size_t i = 1; i < list.size(); i += TIMER_WORDS)
    ids.push_back(list[i]);
  EXPECT_EQ(list[0], static_cast<int>(ids.size()));
  return ids;
}

simulated_machine::simulated_machine(bus_client &bus) : services_({SERVICES}) {
  setenv("DRAVEL_MANAGER", MACHINE_DAEMON, 1);
  setenv("STATE_DIRECTORY", "/run/bench", 0);
  setenv("RUNTIME_DIRECTORY", "/run/bench", 0);
  shell("mkdir -p /sys/class/rtc/rtc0; cd /sys/class/rtc/rtc0; touch wakealarm /dev/rtc0\n"
        "date +%s >since_epoch; echo 1 >hctosys");
  services_.wait_name(bus, {"org.freedesktop.systemd1", "/", ""}); // the last one
}

simulated_machine::~simulated_machine() { unsetenv("DRAVEL_MANAGER"); }

outcome shell(const std::string &script) {
  const std::string whole = "PATH=$(dirname " DRAVELCTL "):$PATH TZ=UTC LC_ALL=C.UTF-8\n"
                            "export PATH TZ LC_ALL\nmkdir -p " SHELL_DIRECTORY
                            "\ncd " SHELL_DIRECTORY "\nexec 2>&1\n" +
                            script;
  const char *command[] = {"/bin/sh", "-c", whole.c_str(), nullptr};
  g_autofree char *said = nullptr;
  int status = -1;
  g_spawn_sync(nullptr, const_cast<char **>(command), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr,
               &said, nullptr, &status, nullptr);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, said};
}
